#!/usr/bin/env bash
# Holds the outputs of the shipped models to the same bits on a processor without AVX-512, where
# qemu-x86_64 is installed to emulate one.
#
# usage: same-bits.sh TOOL    in the root of the repository
set -euo pipefail

tool=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The outputs of both networks of every model, by the tool that the arguments before name.
outputs() {
  local folder=$1 line
  shift
  mkdir "$folder"
  for model in examples/digits/models/*.bin; do
    for line in examples/digits/lines/*0.npy; do
      local name
      name=$folder/$(basename "$model" .bin)-$(basename "$line")
      "$@" "$tool" forward "$model" "$line" "$name"
      "$@" "$tool" forward "$model" "$name" "$name-2" --network 2
    done
  done
}

if ! command -v qemu-x86_64 >/dev/null; then
  echo "skipped: qemu-x86_64 is not installed"
  exit 77
fi
outputs "$work/here" env
[[ -n $(ls "$work/here") ]]
# It warns of what it cannot emulate.
outputs "$work/emulated" qemu-x86_64 -cpu Haswell 2>"$work/warnings"
diff -r "$work/here" "$work/emulated"
