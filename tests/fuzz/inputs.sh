#!/usr/bin/env bash
# Gathers the inputs of the fuzz targets: seeds, the corpus that fuzzing left, and what ever failed.
#
# usage: inputs.sh SEEDS-PROGRAM SOURCE-DIR FOLDER    replaces FOLDER/TARGET and FOLDER/TARGET.dict
set -euo pipefail

rm -rf "$3"
"$1" "$3"
# Models of real size, behind a plan of their width: 8 values a frame.
for model in "$2"/../../examples/digits/models/*.bin; do
  { printf '\010\000\026\003\024\005\001\003'; cat "$model"; } \
    >"$3/recognizer/digits-$(basename "$model")"
done
shopt -s nullglob
for corpus in "$2"/corpus/*.tar.xz; do
  tar -xJf "$corpus" -C "$3"
done
for target in "$2"/failed/*/; do
  cp "$target"/* "$3/$(basename "$target")"
done
