# shellcheck shell=bash
# Sourced by the scripts: messages in one form.

say() {
  printf '== %s: %s\n' "$(basename "$0")" "$*"
}

die() {
  printf '== %s: error: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}
