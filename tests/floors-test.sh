#!/usr/bin/env bash
# Plants includes that the rule of rooms forbids, one at a time, in a copy of the library, and sees
# that floors.sh notices each of them and nothing else.
#
# usage: floors-test.sh REPOSITORY-ROOT
set -euo pipefail

floors=$1/tests/floors.sh
copy=$(mktemp -d)
trap 'rm -rf "$copy"' EXIT
cp -r "$1"/{api,ctc,nnet,utils} "$copy"

"$floors" "$copy" || { echo "the library itself breaks the rule"; exit 1; }

failed=0
expect_notice() {  # FILE INCLUDED
  echo "#include \"$2\"" >>"$copy/$1"
  if "$floors" "$copy" >/dev/null; then
    echo "$1 including $2 was not noticed"
    failed=1
  fi
  cp "${root:?}/$1" "$copy/$1"
}

root=$1
expect_notice nnet/contract/parameter-block.h nnet/recurrent/lstm.h
expect_notice nnet/attention/fsmn-kernels.cpp nnet/contract/nnet-component.h
expect_notice nnet/recurrent/recurrent-layer.h nnet/convolution/conv1d.h
expect_notice nnet/runtime/nnet-nnet.cpp nnet/dense/affine.h
expect_notice nnet/dense/highway-kernels.cpp nnet/dense/highway.h
expect_notice nnet/base/products.cpp nnet/contract/nnet-component.h
expect_notice ctc/beam-search.cpp nnet/base/products.h
expect_notice utils/utils.cpp ctc/beam-search.h
exit $failed
