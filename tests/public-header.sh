#!/usr/bin/env bash
# The public header compiles alone, twice in one file, and without a warning, in old and new C and C++.
#
# usage: public-header.sh C-COMPILER C++-COMPILER HEADER
set -euo pipefail
c_compiler=$1
cxx_compiler=$2
header=$3

compiles() {  # COMPILER LANGUAGE STANDARD
  printf '#include "%s"\n#include "%s"\n' "$header" "$header" |
    "$1" -x "$2" -std="$3" -fsyntax-only -Wall -Wextra -Wpedantic -Werror -
}

failed=0
for standard in c99 c11; do
  compiles "$c_compiler" c $standard || { echo "$header is not clean as $standard"; failed=1; }
done
for standard in c++11 c++20; do
  compiles "$cxx_compiler" c++ $standard || { echo "$header is not clean as $standard"; failed=1; }
done
exit $failed
