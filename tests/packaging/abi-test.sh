#!/bin/sh
# The library's ABI against the baseline in the tree. Any difference fails: a change of the
# ABI comes with a new baseline (scripts/update-abi-baseline), and with a new SONAME when
# it is incompatible, in the same commit.
# Usage: abi-test.sh ABIDIFF BASELINE LIBRARY
set -eu
status=0
"$1" --no-show-locs "$2" "$3" || status=$?
if [ "$status" -ne 0 ]; then
    echo "the ABI of $3 differs from $2 (abidiff status $status)" >&2
    exit 1
fi
echo "ABI as in $2"
