// Calibration files come from disk and may be damaged in any way: loading, normalising and
// choosing an index from whatever they hold must neither crash nor invent entries.
#include <cstdint>
#include <string_view>

#include <orca-vtx/orca-vtx-helpers.h>

#include "quiet_output.h"

// The loader and the index choice report each damaged line and missing MCS on stderr.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    orca_fuzz_quiet(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    PowerCalibrationMap map =
        loadPowerCalibrationDataFromString({reinterpret_cast<const char*>(data), size});
    normalizeMcsCoverage(map);
    for (int mcs = 0; mcs <= 7; ++mcs) {
        int wanted = 100;
        const int index =
            findClosestPowerIndex(map, mcs, &wanted, 5745, RegulatoryDomain::off, true);
        // The result is the fallback 1 or a power level that the table holds.
        bool known = index == 1;
        for (const auto& entry : map)
            for (const auto& [mw, level] : entry.second)
                known = known || level == index;
        if (!known || wanted != 100)
            __builtin_trap();
    }
    return 0;
}
