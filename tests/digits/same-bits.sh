#!/usr/bin/env bash
# Holds the outputs of the shipped models to the same bits whatever kernels the BLAS library chooses
# and, where qemu-x86_64 is installed, on a processor without AVX-512.
#
# usage: same-bits.sh TOOL    in the root of the repository
set -euo pipefail

tool=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The outputs of both networks of both models, by the tool that the arguments before name.
outputs() {
  local folder=$1 line
  shift
  mkdir "$folder"
  for model in model model-fixed; do
    for line in examples/digits/lines/*[05].npy; do
      local name
      name=$folder/$model-$(basename "$line")
      "$@" "$tool" forward "examples/digits/$model.bin" "$line" "$name"
      "$@" "$tool" forward "examples/digits/$model.bin" "$name" "$name-2" --network 2
    done
  done
}

outputs "$work/here" env
[[ -n $(ls "$work/here") ]]
for core in Prescott Haswell; do
  outputs "$work/$core" env OPENBLAS_CORETYPE=$core
  diff -r "$work/here" "$work/$core"
done
if command -v qemu-x86_64 >/dev/null; then
  # It warns of what it cannot emulate.
  outputs "$work/emulated" qemu-x86_64 -cpu Haswell 2>"$work/warnings"
  diff -r "$work/here" "$work/emulated"
fi
