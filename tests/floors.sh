#!/usr/bin/env bash
# The library is a house of floors: a file includes only files of its own floor or of floors below.
#
#   5  tools/ examples/ bench/ tests/           programs that use the library
#   4  api/                                     the exported functions
#   3  nnet/nnet-nnet, component-registry       what must know every layer
#   2  nnet/ otherwise, nnet/stream_nnet/       the layer families
#   1  nnet/nnet-component, parameter-block     the contract that every layer fulfils, parameter arrays
#   0  utils/ ctc/ nnet/nnet-util, vector-math  what knows nothing of layers
#
# On floor 0, utils/ and ctc/ know nothing of nnet/ either.
#
# usage: floors.sh REPOSITORY-ROOT
set -euo pipefail
cd "$1"

floor_of() {
  case $1 in
    utils/* | ctc/* | nnet/nnet-util* | nnet/vector-math*) echo 0 ;;
    nnet/nnet-component* | nnet/parameter-block* | nnet/fixed-block*) echo 1 ;;
    nnet/nnet-nnet* | nnet/component-registry*) echo 3 ;;
    nnet/*) echo 2 ;;
    api/*) echo 4 ;;
    *) echo 5 ;;
  esac
}

# An include names a file from the root of the repository or from the folder of the file it stands
# in; what is neither belongs to somebody else.
resolve() {  # FILE INCLUDED
  local beside
  beside=$(realpath --canonicalize-missing --relative-to=. "$(dirname "$1")/$2")
  if [[ -f $beside ]]; then
    echo "$beside"
  elif [[ -f $2 ]]; then
    realpath --relative-to=. "$2"
  fi
}

failed=0
seen=0
while IFS=: read -r file line text; do
  included=$(sed -E 's/^[^"<]*["<]([^">]*).*/\1/' <<<"$text")
  target=$(resolve "$file" "$included")
  [[ -n $target ]] || continue
  seen=$((seen + 1))
  if (($(floor_of "$file") < $(floor_of "$target"))); then
    echo "$file:$line: includes $target of a higher floor ($(floor_of "$file") -> $(floor_of "$target"))"
    failed=1
  elif [[ $file =~ ^(utils|ctc)/ && $target == nnet/* ]]; then
    echo "$file:$line: includes $target, but ${file%%/*}/ knows nothing of networks"
    failed=1
  fi
done < <(grep -rnE '^[[:space:]]*#[[:space:]]*(include|define HWY_TARGET_INCLUDE)[[:space:]]*["<]' \
  api nnet utils ctc)

if ((seen == 0)); then
  echo "no include of a project file was found: nothing was checked"
  failed=1
fi
exit $failed
