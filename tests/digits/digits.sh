#!/usr/bin/env bash
# Holds the shipped models to their five best readings of every line, in order: tests/digits/MODEL.txt.
#
# usage: digits.sh TOOL MODEL    in the root of the repository
set -euo pipefail

"$1" recognize "examples/digits/$2.bin" examples/digits/lines/*.npy --nbest 5 \
  --labels examples/digits/labels.txt | diff "tests/digits/$2.txt" -
