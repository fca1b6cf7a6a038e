# Sourced by the checks of programs, whose emulator (none: native) is set before: a folder
# for their files, and runs that must answer with a code and say something.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "$*"
  head -5 "$work/out" "$work/notes"
  exit 1
}

run() { # code, what the program must say, program, arguments...
  local code=0 wanted=$1 note=$2
  shift 2
  $emulator "$@" >"$work/out" 2>"$work/notes" || code=$?
  [ "$code" = "$wanted" ] || fail "$*: code $code for $wanted, said:"
  grep -qE -- "$note" "$work/out" "$work/notes" || fail "$*: expected to say \"$note\", said:"
}

# A command line: what is wrong with it is named beside the usage; --help answers with 0.
line() { # 2, program, arguments...
  run "$1" '^usage: ' "${@:2}"
  run 2 'unknown-option' "$2" --unknown-option
  run 0 '^usage: ' "$2" --help
  [ ! -s "$work/notes" ] || fail "$2: help among the errors"
}

# Lines of what the last program said that match a pattern.
count() { tr -d '\r' <"$work/out" | grep -Ec "$1" || true; }
