#!/usr/bin/env bash
# The exported functions catch std::exception and nothing else: the library throws the standard's
# exceptions and its own, which are derived from them.
#
# usage: throws.sh SOURCE-FOLDER
set -euo pipefail
cd "$1"

allowed='throw (std::(runtime_error|length_error|bad_alloc|logic_error)|ComponentRefused|BudgetExceeded)\('
# Without comments and strings; the specifications of functions are `noexcept`.
found=$(grep -rn --include='*.cpp' --include='*.h' -w throw api ctc nnet utils |
  sed -E 's/"([^"\\]|\\.)*"//g; s|//.*||; s|/?\*.*||' |
  grep -w throw | grep -vE "$allowed|throw;" || true)
if [[ -n $found ]]; then
  echo "thrown, and not derived from std::exception as far as one can see:"
  echo "$found"
  exit 1
fi
[[ $(grep -rnE "$allowed" --include='*.cpp' nnet utils | wc -l) -ge 3 ]] ||
  { echo "found no throw at all: this test does not look where it should"; exit 1; }
