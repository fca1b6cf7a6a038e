#!/usr/bin/env bash
# Installs the library into a folder of its own, moves it, and builds C and C++ programs against
# it as a host does: check_install.sh CMAKE BUILD_FOLDER SOURCE_FOLDER VERSION [TOOLCHAIN EMULATOR],
# the last two for a cross build. All link the shared library, one the static one as well; the programs of the README and of docs/networks.md
# are taken from their texts, and the latter reads a file that the Python writer made. The Python
# package tests itself.
set -euo pipefail
cmake=$1
build=$2
readme=$3/README.md
version=$4
toolchain=${5:-}
emulator=${6:-}
suffix=${toolchain:+.exe}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "$*"; exit 1; }
runs() { $emulator "$work/out/$1$suffix" "${@:2}" | tr -d '\r'; } # program, arguments...
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
foreach(name host readme network)
  add_executable(${name}_c ${name}.c)
  target_link_libraries(${name}_c zyncore::zyncore)
endforeach()
add_executable(host_static host.c)
target_link_libraries(host_static zyncore::zyncore_static)
add_executable(host_cpp host.cpp)
target_link_libraries(host_cpp zyncore::zyncore)
add_executable(network_cpp network.cpp)
target_link_libraries(network_cpp zyncore::zyncore)
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
program_of() { sed -n '/^```c$/,/^```$/p' "$1" | sed '1d;/^```$/,$d'; } # the first one of a page
program_of "$readme" >"$work/host/readme.c"
# C++ asks for the casts that C leaves out.
program_of "$3/docs/networks.md" >"$work/host/network.c"
sed 's/float\* pixels = /&(float*)/' "$work/host/network.c" >"$work/host/network.cpp"

quietly "$cmake" --install "$build" --prefix "$work/prefix"
mv "$work/prefix" "$work/moved"
quietly "$cmake" -G Ninja -S "$work/host" -B "$work/out" -DCMAKE_PREFIX_PATH="$work/moved" \
  ${toolchain:+"-DCMAKE_TOOLCHAIN_FILE=$toolchain"}
quietly "$cmake" --build "$work/out"
if [ -n "$toolchain" ]; then cp "$work"/moved/bin/*.dll "$work/out"; fi # programs look beside themselves
for program in host_c host_static host_cpp; do
  runs $program || fail "$program: code $?"
done
runs readme_c >"$work/said"
grep -qx 'corner 9, middle 19' "$work/said" || fail "the README's program says: $(cat "$work/said")"

if /usr/bin/python3 -c 'import numpy' 2>/dev/null; then
  PYTHONPATH=$3/python /usr/bin/python3 -B - "$work/ones.zyn" <<'END_OF_WRITER'
import sys
import numpy as np
from zyncore.netfile import Writer
net = Writer()
image = net.input("image", (4, 3, 1))
ones = net.constant("ones", np.r_[np.ones(9), 2.5])
conv = net.node("CONV", "sum", [image, ones], [1, 1, 3, 3, 1, 1, 1, 1, 0, 0, 1, 1, 1, 1, 0, 0])
net.output("sums", conv)
net.metadata("origin", "a test")
net.write(sys.argv[1])
END_OF_WRITER
  for program in network_c network_cpp; do
    [ "$(runs $program "$work/ones.zyn")" = 2.5 ] || fail "$program: not 2.5"
  done
fi
! runs network_c "$readme" >"$work/said" || fail "a README is taken for a network"
grep -q 'this is no network file' "$work/said" || fail "not explained: $(cat "$work/said")"
for page in README.md LICENSE architecture.md; do
  [ -s "$work/moved/share/doc/zyncore/$page" ] || fail "no $page"
done
for tool in bench info quant run; do quietly $emulator "$work/moved/bin/zyn-$tool$suffix" --help; done
if [ -n "$toolchain" ]; then exit 0; fi

if /usr/bin/python3 -c 'import numpy' 2>/dev/null; then
  # The installed Python package finds the library around it; so does one that pip put there.
  packages=$work/moved/lib/python3/dist-packages
  selftest() { quietly env -u ZYN_LIBRARY PYTHONPATH="$packages" /usr/bin/python3 -B -m zyncore.selftest; }
  selftest
  if /usr/bin/python3 -c 'import pip, setuptools, wheel' 2>/dev/null; then
    cp -r "$3/python" "$work/python" # building leaves files in the tree
    rm -r "$packages"
    quietly /usr/bin/python3 -m pip install --no-index --no-build-isolation "$work/python" --target "$packages"
    selftest
  else
    echo "no pip: installing with it is passed over"
  fi
else
  echo "no numpy: Python is passed over"
fi

if command -v pkg-config >/dev/null; then
  pc=$(find "$work/moved" -name zyncore.pc)
  export PKG_CONFIG_PATH=${pc%/*}
  [ "$(pkg-config --modversion zyncore)" = "$version" ] || fail "zyncore.pc: another version"
  quietly cc "$work/host/host.c" -o "$work/host_pc" $(pkg-config --cflags --libs zyncore) \
    "-Wl,-rpath,$(pkg-config --variable=libdir zyncore)"
  "$work/host_pc" || fail "host_pc: code $?"
fi
