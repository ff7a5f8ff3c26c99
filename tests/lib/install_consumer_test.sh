#!/bin/sh
# Installs the library from the build tree into a scratch prefix, then configures, builds
# and runs a small program against it with find_package(OrcaVtx).
# Usage: install_consumer_test.sh BUILD_DIR CONSUMER_SOURCE_DIR CMAKE CXX CXX_FLAGS LINK_FLAGS
#                                 [TOOLCHAIN_FILE [EMULATOR]]
# A cross build passes its toolchain file and the emulator that runs its programs.
set -eu
build_dir=$1
consumer_dir=$2
cmake=$3
cxx=$4
cxx_flags=$5
link_flags=$6
toolchain=${7:-}
emulator=${8:-}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

for component in runtime dev; do
    "$cmake" --install "$build_dir" --prefix "$scratch/prefix" --component "$component" >/dev/null
done
for header in orca-common.h orca-vtx-helpers.h default_power_calibration.h; do
    test -f "$scratch/prefix/include/orca-vtx/$header"
done
"$cmake" -S "$consumer_dir" -B "$scratch/build" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/prefix" \
    -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$cxx_flags" \
    -DCMAKE_EXE_LINKER_FLAGS="$link_flags" ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain"} >/dev/null
"$cmake" --build "$scratch/build" >/dev/null
output=$($emulator "$scratch/build/consumer")
echo "$output"
# The embedded 5.8 GHz default puts 100 mW at MCS 3 closest to power level 25.
expected="channel 149: 5745 MHz, power index for 100 mW: 25, MCS tables: 8"
if [ "$output" != "$expected" ]; then
    echo "expected: $expected" >&2
    exit 1
fi
