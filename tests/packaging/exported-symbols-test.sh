#!/bin/sh
# The library's dynamic symbols against the symbols file of its Debian package: a symbol
# exported by accident or lost fails, so that the API changes only together with the file.
# C++ names are listed demangled with the (c++) tag, C names as they are.
# Usage: exported-symbols-test.sh NM LIBRARY SYMBOLS_FILE
set -eu
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
"$1" -D --defined-only "$2" | awk '{print $NF}' | c++filt | LC_ALL=C sort >"$scratch/exported"
sed -n -e 's/^ (c++)"\(.*\)@Base" .*/\1/p' -e 's/^ \([A-Za-z_][A-Za-z0-9_]*\)@Base .*/\1/p' \
    "$3" | LC_ALL=C sort >"$scratch/listed"
if [ ! -s "$scratch/listed" ]; then
    echo "no symbols read from $3" >&2
    exit 1
fi
if ! diff -u "$scratch/listed" "$scratch/exported" >"$scratch/diff"; then
    echo "exported symbols of $2 (+) differ from $3 (-):" >&2
    grep '^[-+][^-+]' "$scratch/diff" >&2
    exit 1
fi
echo "$(wc -l <"$scratch/exported") exported symbols, as listed"
