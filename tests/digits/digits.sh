#!/usr/bin/env bash
# Holds every shipped model to its five best readings of every line, in order: tests/digits/MODEL.txt.
#
# usage: digits.sh TOOL [--write]    in the root of the repository; --write replaces the readings
set -euo pipefail

status=0
for path in examples/digits/models/*.bin; do
  readings=tests/digits/$(basename "$path" .bin).txt
  found=$("$1" recognize "$path" examples/digits/lines/*.npy --nbest 5 \
    --labels examples/digits/labels.txt)
  if [[ ${2:-} == --write ]]; then
    printf '%s\n' "$found" >"$readings"
  elif ! diff "$readings" - <<<"$found"; then
    echo "$path reads otherwise"
    status=1
  fi
done
exit $status
