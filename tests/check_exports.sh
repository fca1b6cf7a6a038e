#!/usr/bin/env bash
# check_exports.sh LIBRARY EXPORTS HEADERS: the three must name the same functions and
# data, and the library may depend on system libraries only. Its foundation (src/base), which a
# host loads first, has no instruction that not every x86-64 processor knows.
set -u
library=$1 exports=$2 headers=$3
expected=$(grep -E '^zyn_' "$exports" | tr -d '\r' | LC_ALL=C sort)
declared=$(grep -oE 'zyn_[A-Za-z0-9_]+(\(|\[13\];|;)' <(cat "$headers"/*.h | tr '\n' ' ' | grep -oE 'ZYN_API [^;(]*[;(]') |
  sed 's/[(\[;].*//' | LC_ALL=C sort -u)
case $library in
  *.dll)
    dump=$(x86_64-w64-mingw32-objdump -p "$library")
    built=$(sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' <<<"$dump" | grep -oE '\bzyn_[A-Za-z0-9_]+' | LC_ALL=C sort)
    needed=$(grep 'DLL Name' <<<"$dump" | awk '{print tolower($3)}' | grep -vE '^(kernel32|msvcrt|user32|advapi32|ntdll)\.dll$')
    ;;
  *)
    built=$(nm -D --defined-only "$library" | awk '$2 != "A" {print $3}' | sed 's/@.*//' | LC_ALL=C sort)
    needed=$(objdump -p "$library" | awk '/NEEDED/ {print $2}' | grep -vE '^(libc|libm|libgcc_s|libgomp|libpthread|ld-linux-x86-64)\.so')
    members=$(cd "$headers/../src/base" && printf '%s.o\n' *.cpp)
    wide=$(objdump -d --no-show-raw-insn "${library%/*}/libzyncore_static.a" |
      awk '/file format/ { member = $1 } /\tv[a-z0-9]+ .*%[xyz]mm/ { print member }' | sort -u)
    foundation=$(grep -xF "$members" <<<"${wide//:/}")
    grep -q zyn_gemm <<<"$wide" || foundation="nothing found, not even in kernels"
    ;;
esac
status=0
differ() { diff <(printf '%s\n' "$1") <(printf '%s\n' "$2") || { echo "$3"; status=1; }; }
differ "$expected" "$built" "export list (<) and built library (>) differ"
differ "$expected" "$declared" "export list (<) and public header (>) differ"
if [ -n "${foundation:-}" ]; then echo "src/base uses AVX: $foundation"; status=1; fi
if [ -n "$needed" ]; then echo "needs more than system libraries: $needed"; status=1; fi
[ $status = 0 ] && echo "$(wc -l <<<"$expected") exports agree"
exit $status
