#!/usr/bin/env bash
# The page's table of reports is that of the sources, and the check sees a moved number.
set -euo pipefail
cd "$(dirname "$0")/.."
python3 tools/report_sites.py --check
copy=$(mktemp -d)
trap 'rm -rf "$copy"' EXIT
cp -r src docs tools "$copy"
site=$(grep -rlE 'constexpr zyn_site k\w+\{kPath, [0-9]+' "$copy/src" | head -1)
sed -i -E '0,/(constexpr zyn_site k\w+\{kPath, )[0-9]+/s//\19999/' "$site"
! python3 "$copy/tools/report_sites.py" --check >"$copy/said"
grep -q 9999 "$copy/said"
# The files that the page names elsewhere are there.
for file in $(sed '/report sites: begin/,$d' docs/architecture.md | grep -oE '`(src|include|tests|tools|docs|examples|bench)/[^`]*`' | tr -d '`'); do
  [ -e "$file" ] || { echo "docs/architecture.md: no $file"; exit 1; }
done
