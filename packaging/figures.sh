#!/usr/bin/env bash
# Measures all on this machine and writes docs/figures.md: the tables of ./soak --long and ./bench, an hour in
# all; with --quick the quick form of ./soak, ten minutes. Nothing else should run meanwhile. Exit status: that of
# ./soak.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0
form=(--long)
if [[ ${1:-} == --quick ]]; then form=(); fi
./soak "${form[@]}" --write "$work/soak" || status=$?
./bench | sed -n '/^figure /,$p' >"$work/bench"
{
  printf '# Figures\n\nWritten by packaging/figures.sh. What the scenarios do: `./soak --list`.\n\n'
  cat "$work/soak"
  printf '\n`./bench`, each figure against its own baseline:\n\n```\n'
  cat "$work/bench"
  printf '```\n'
} >docs/figures.md
exit $status
