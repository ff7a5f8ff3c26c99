// Uses the installed library through its installed headers only.
#include <cstdio>

#include <orca-vtx/default_power_calibration.h>
#include <orca-vtx/orca-common.h>
#include <orca-vtx/orca-vtx-helpers.h>

int main() {
    PowerCalibrationMap map = loadPowerCalibrationDataFromString(default_cal::kCalibrated_5_8);
    normalizeMcsCoverage(map);
    int wanted_mw = 100;
    const int index = findClosestPowerIndex(map, 3, &wanted_mw, 5745, RegulatoryDomain::fcc, true);
    std::printf("channel 149: %d MHz, power index for 100 mW: %d, MCS tables: %zu\n",
                channel_to_frequency(149), index, map.size());
    return 0;
}
