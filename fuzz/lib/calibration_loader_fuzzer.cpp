// Calibration files come from disk and may be damaged in any way: loading, normalising and
// choosing an index from whatever they hold must neither crash nor invent entries.
#include <cstdint>
#include <cstdio>
#include <string_view>

#include "orca-vtx-helpers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    PowerCalibrationMap map = loadPowerCalibrationDataFromString(text);
    normalizeMcsCoverage(map);
    for (int mcs = 0; mcs <= 7; ++mcs) {
        int wanted = 100;
        const int index =
            findClosestPowerIndex(map, mcs, &wanted, 5745, RegulatoryDomain::off, true);
        // The result is the fallback 1 or a power level that the table holds.
        bool known = index == 1;
        for (const auto& [table_mcs, table] : map) {
            for (const auto& [mw, level] : table)
                known = known || level == index;
        }
        if (!known || wanted != 100)
            __builtin_trap();
    }
    return 0;
}
