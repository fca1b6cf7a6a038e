#!/usr/bin/env bash
# Installs the library into a folder of its own and builds a C and a C++ program against
# it as a host does: check_install.sh CMAKE BUILD_FOLDER. Both link the shared library,
# the C program the static one as well.
set -euo pipefail
cmake=$1
build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
quietly() { "$@" >"$work/said" 2>&1 || { cat "$work/said"; exit 1; }; }

mkdir "$work/host"
cat >"$work/host/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.20)
project(host C CXX)
find_package(zyncore REQUIRED)
add_executable(host_c host.c)
target_link_libraries(host_c zyncore::zyncore)
add_executable(host_static host.c)
target_link_libraries(host_static zyncore::zyncore_static)
add_executable(host_cpp host.cpp)
target_link_libraries(host_cpp zyncore::zyncore)
END
cat >"$work/host/host.c" <<'END'
#include <zyncore.h>
int main(void) {
  const int32_t dims[3] = {4, 3, 2};
  zyn_tensor* tensor = zyn_create_tensor(3, dims, ZYN_TYPE_F32);
  if (!tensor || tensor->count != 24) return 1;
  zyn_release_tensor(&tensor);
  return zyn_get_current_memory_size_occupation() == 0 ? 0 : 2;
}
END
cp "$work/host/host.c" "$work/host/host.cpp"

quietly "$cmake" --install "$build" --prefix "$work/prefix"
quietly "$cmake" -G Ninja -S "$work/host" -B "$work/out" -DCMAKE_PREFIX_PATH="$work/prefix"
quietly "$cmake" --build "$work/out"
for program in host_c host_static host_cpp; do
  "$work/out/$program" || { echo "$program: code $?"; exit 1; }
done
