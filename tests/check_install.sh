#!/usr/bin/env bash
# Installs the library into a folder of its own, moves it, and builds C and C++ programs against
# it as a host does: check_install.sh CMAKE BUILD_FOLDER SOURCE_FOLDER VERSION. All link the
# shared library, one the static one as well; the README's program is taken from its text.
set -euo pipefail
cmake=$1
build=$2
readme=$3/README.md
version=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "$*"; exit 1; }
quietly() { "$@" >"$work/said" 2>&1 || { cat "$work/said"; fail "failed: $*"; }; }

mkdir "$work/host"
cat >"$work/host/CMakeLists.txt" <<'END_OF_HOST'
cmake_minimum_required(VERSION 3.20)
project(host C CXX)
find_package(zyncore 2.0 QUIET)
if(zyncore_FOUND)
  message(FATAL_ERROR "another major version is taken")
endif()
find_package(zyncore 1.0 REQUIRED)
set(CMAKE_C_STANDARD 99)
set(CMAKE_C_EXTENSIONS OFF)
add_compile_options(-pedantic -Wall -Wextra -Werror)
foreach(name host readme)
  add_executable(${name}_c ${name}.c)
  target_link_libraries(${name}_c zyncore::zyncore)
endforeach()
add_executable(host_static host.c)
target_link_libraries(host_static zyncore::zyncore_static)
add_executable(host_cpp host.cpp)
target_link_libraries(host_cpp zyncore::zyncore)
END_OF_HOST
cat >"$work/host/host.c" <<'END_OF_HOST'
#include <zyncore.h>
int main(void) {
  const int32_t dims[3] = {4, 3, 2};
  zyn_tensor* tensor = zyn_create_tensor(3, dims, ZYN_TYPE_F32);
  if (!tensor || tensor->count != 24) return 1;
  zyn_release_tensor(&tensor);
  if (zyn_version() != ZYN_VERSION_MAJOR * 10000 + ZYN_VERSION_MINOR * 100 + ZYN_VERSION_PATCH) return 3;
  return zyn_get_current_memory_size_occupation() == 0 ? 0 : 2;
}
END_OF_HOST
cp "$work/host/host.c" "$work/host/host.cpp"
sed -n '/^```c$/,/^```$/{/^```/!p}' "$readme" >"$work/host/readme.c"

quietly "$cmake" --install "$build" --prefix "$work/prefix"
mv "$work/prefix" "$work/moved"
quietly "$cmake" -G Ninja -S "$work/host" -B "$work/out" -DCMAKE_PREFIX_PATH="$work/moved"
quietly "$cmake" --build "$work/out"
for program in host_c host_static host_cpp; do
  "$work/out/$program" || fail "$program: code $?"
done
"$work/out/readme_c" >"$work/said"
grep -qx 'corner 9, middle 19' "$work/said" || fail "the README's program says: $(cat "$work/said")"

if command -v pkg-config >/dev/null; then
  pc=$(find "$work/moved" -name zyncore.pc)
  export PKG_CONFIG_PATH=${pc%/*}
  [ "$(pkg-config --modversion zyncore)" = "$version" ] || fail "zyncore.pc: another version"
  quietly cc "$work/host/host.c" -o "$work/host_pc" $(pkg-config --cflags --libs zyncore) \
    "-Wl,-rpath,$(pkg-config --variable=libdir zyncore)"
  "$work/host_pc" || fail "host_pc: code $?"
fi
quietly "$work/moved/bin/zyn-quant" --help
for page in README.md LICENSE architecture.md; do
  [ -s "$work/moved/share/doc/zyncore/$page" ] || fail "no $page"
done
