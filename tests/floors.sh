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

set_floor() {  # VARIABLE FILE
  local number
  case $2 in
    utils/* | ctc/* | nnet/nnet-util* | nnet/vector-math*) number=0 ;;
    nnet/nnet-component*) number=1 ;;
    nnet/nnet-nnet* | nnet/component-registry*) number=3 ;;
    nnet/*) number=2 ;;
    api/*) number=4 ;;
    *) number=5 ;;
  esac
  printf -v "$1" %d $number
}

# An include names a file from the root of the repository or from the folder of the file it stands
# in; what is neither belongs to somebody else, and `target` stays empty.
set_target() {  # FILE INCLUDED
  local beside=${1%/*}/$2
  target=
  if [[ -f $beside ]]; then
    target=$beside
    [[ $beside != *..* ]] || target=$(realpath --relative-to=. "$beside")
  elif [[ -f $2 ]]; then
    target=$2
  fi
}

failed=0
seen=0
directive='[[:space:]]*#[[:space:]]*(include|define HWY_TARGET_INCLUDE)[[:space:]]*["<]'
while IFS=: read -r file line text; do
  included=${text#*[\"<]}
  included=${included%%[\">]*}
  set_target "$file" "$included"
  [[ -n $target ]] || continue
  seen=$((seen + 1))
  set_floor from "$file"
  set_floor to "$target"
  # shellcheck disable=SC2154  # set_floor assigns them
  if ((from < to)); then
    echo "$file:$line: includes $target of a higher floor ($from -> $to)"
    failed=1
  elif [[ $file =~ ^(utils|ctc)/ && $target == nnet/* ]]; then
    echo "$file:$line: includes $target, but ${file%%/*}/ knows nothing of networks"
    failed=1
  fi
done < <(grep -rnE "^$directive" api nnet utils ctc)

if ((seen == 0)); then
  echo "no include of a project file was found: nothing was checked"
  failed=1
fi
exit $failed
