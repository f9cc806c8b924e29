#!/usr/bin/env bash
# Installs to a fresh prefix, moves it, and builds and runs a C program against it, found once by
# pkg-config and once by its CMake package. Nothing is installed that a host does not need.
#
# usage: package.sh BUILD-DIR SOURCE-DIR C-COMPILER LIBDIR
#   LIBDIR   the folder of libraries below the prefix, for example lib
set -euo pipefail
build_dir=$1
source_dir=$2
c_compiler=$3
libdir=$4

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/moved
model=$source_dir/examples/digits/model.bin
arguments=()
[[ -f $model ]] && arguments=("$model")

fail() {
  echo "package: $*" >&2
  exit 1
}

cmake --install "$build_dir" --prefix "$work/prefix" >"$work/log" || { cat "$work/log"; exit 1; }
mv "$work/prefix" "$prefix"

expected="^\./(bin/handwriting|share/man/man1/handwriting\.1\
|share/bash-completion/completions/handwriting|include/handwriting_forward\.h\
|$libdir/libhandwriting_forward\.so(\.1(\.0\.0)?)?|$libdir/libvtkloguru-[0-9.]+\.so\.1\
|$libdir/pkgconfig/handwriting_forward\.pc|$libdir/cmake/handwriting_forward/[a-z_-]+\.cmake)$"
cd "$prefix"
surplus=$(find . ! -type d | grep -vE "$expected" || true)
[[ -z $surplus ]] || fail "installed beyond what a host needs: $surplus"

"$prefix/bin/handwriting" --help >/dev/null || fail "the installed tool does not start"
grep -q '^\.SH COMMANDS' "$prefix/share/man/man1/handwriting.1" || fail "no manual page"
bash -n "$prefix/share/bash-completion/completions/handwriting" || fail "no completions"

export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
read -ra flags < <(pkg-config --cflags --libs handwriting_forward)
"$c_compiler" -Wall -Wextra -Wpedantic -Werror "$source_dir/tests/package/consumer.c" \
  -o "$work/consumer" "${flags[@]}" || fail "no program could be built by pkg-config"
LD_LIBRARY_PATH=$prefix/$libdir "$work/consumer" "${arguments[@]}" ||
  fail "the program built by pkg-config failed"

{
  cmake -S "$source_dir/tests/package" -B "$work/cmake" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_C_COMPILER="$c_compiler" -DCMAKE_PREFIX_PATH="$prefix" &&
    cmake --build "$work/cmake"
} >"$work/log" 2>&1 || { cat "$work/log"; fail "no program could be built by the CMake package"; }
"$work/cmake/consumer" "${arguments[@]}" || fail "the program built by the CMake package failed"
