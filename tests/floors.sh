#!/usr/bin/env bash
# The library is a house of rooms: a file includes only files of its own room or of rooms that the
# table below lets its room see. docs/architecture.md says what lives where.
#
# usage: floors.sh REPOSITORY-ROOT
set -euo pipefail
cd "$1"

# ROOM: the rooms it sees. What ends in -kernels stands beside its family and sees base and utils
# only (and the parts of its own family that end in -inl.h); the executor and the registry share a
# room but not a view.
layers='contract base utils'
declare -A sees=(
  [utils]=''
  [ctc]='utils'
  [base]='utils'
  [contract]='base utils'
  [dense]=$layers
  [recurrent]=$layers
  [convolution]=$layers
  [attention]=$layers
  [flow]=$layers
  [stream_nnet]="$layers convolution flow"
  [executor]='contract base utils'
  [registry]='executor contract dense recurrent convolution attention flow stream_nnet utils'
  [api]='executor contract ctc base utils'
)

set_room() {  # VARIABLE FILE
  local room
  case $2 in
    nnet/runtime/component-registry*) room=registry ;;
    nnet/runtime/*) room=executor ;;
    nnet/*/*)
      room=${2#nnet/}
      room=${room%%/*}
      ;;
    nnet/*) room='nnet/ itself, which holds folders only' ;;
    utils/* | ctc/* | api/*) room=${2%%/*} ;;
    *) room=programs ;;
  esac
  printf -v "$1" %s "$room"
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

complain() {
  echo "$1"
  failed=1
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
  set_room from "$file"
  set_room to "$target"
  # shellcheck disable=SC2154  # set_room assigns them
  if [[ -z ${sees[$from]+known} ]]; then
    complain "$file: lies in no room of the house ($from)"
  elif [[ $file == *-kernels.* && $from == "$to" && $target != "${file%.*}".* &&
    $target != *-inl.h && $from != base ]]; then
    complain "$file:$line: includes $target, but kernels see base and utils only"
  elif [[ $file == *-kernels.* && $to == contract ]]; then
    complain "$file:$line: includes $target, but kernels see base and utils only"
  elif [[ $from != "$to" && " ${sees[$from]} " != *" $to "* ]]; then
    complain "$file:$line: includes $target, but $from does not see $to"
  fi
done < <(grep -rnE "^$directive" api nnet utils ctc)

if ((seen == 0)); then
  complain "no include of a project file was found: nothing was checked"
fi
exit $failed
