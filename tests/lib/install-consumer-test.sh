#!/bin/sh
# Installs the library from the build tree into a scratch prefix, then configures, builds
# and runs a small program against it with find_package(OrcaVtx).
# Usage: install-consumer-test.sh BUILD_DIR CONSUMER_SOURCE_DIR CMAKE CXX CXX_FLAGS LINK_FLAGS
#                                 [TOOLCHAIN_FILE [EMULATOR]]
# A cross build passes its toolchain file and the emulator that runs its programs.
set -eu
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
for component in runtime dev; do
    "$3" --install "$1" --prefix "$scratch/prefix" --component "$component" >/dev/null
done
"$3" -S "$2" -B "$scratch/build" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/prefix" \
    -DCMAKE_CXX_COMPILER="$4" -DCMAKE_CXX_FLAGS="$5" -DCMAKE_EXE_LINKER_FLAGS="$6" \
    ${7:+-DCMAKE_TOOLCHAIN_FILE="$7"} >/dev/null
"$3" --build "$scratch/build" >/dev/null
output=$(${8:-} "$scratch/build/consumer")
# The embedded 5.8 GHz default puts 100 mW at MCS 3 closest to power level 25.
expected="channel 149: 5745 MHz, power index for 100 mW: 25, MCS tables: 8"
if [ "$output" != "$expected" ]; then
    printf 'got:      %s\nexpected: %s\n' "$output" "$expected" >&2
    exit 1
fi
