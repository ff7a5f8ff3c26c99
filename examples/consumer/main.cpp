// A small program of the transmitter service's kind: picks the power index for 100 mW at
// MCS 3 on channel 149 from the library's built-in 5.8 GHz calibration table.
#include <orca-vtx/default_power_calibration.h>
#include <orca-vtx/orca-common.h>
#include <orca-vtx/orca-vtx-helpers.h>

#include <cstdio>

int main() {
    const int frequency = channel_to_frequency(149);
    PowerCalibrationMap map = loadPowerCalibrationDataFromString(default_cal::kCalibrated_5_8);
    normalizeMcsCoverage(map);
    int wanted_mw = 100;
    const int index =
        findClosestPowerIndex(map, 3, &wanted_mw, frequency, RegulatoryDomain::fcc, true);
    if (frequency != 5745 || index < 1) {
        std::fprintf(stderr, "Error: channel 149 gave %d MHz and power index %d\n", frequency,
                     index);
        return 1;
    }
    std::printf("channel 149: %d MHz, power index for 100 mW at MCS 3: %d\n", frequency, index);
    return 0;
}
