// Turning a wanted output in mW into a starting power index.
#include <cstdint>
#include <cstdio>
#include <iterator>

#include <fmt/core.h>

#include "orca-vtx-helpers.h"

namespace {

// Without a calibration table or a detector to correct against, the highest index that
// is known to stay within the limits of the band.
int fixed_max_power_index(int mcs, int frequency_mhz, RegulatoryDomain domain) {
    if (frequency_mhz < 2485)
        return mcs <= 2 ? 39 : 45;
    if (domain != RegulatoryDomain::off && frequency_mhz <= 5340)
        return 30;
    return 58;
}

// The requested MCS, else the nearest lower one down to 0, else the nearest higher one up
// to 7. Looked up among the map's own keys, so any MCS value costs two lookups.
const std::map<int, int>* find_mcs_table(const PowerCalibrationMap& map, int mcs) {
    auto at_or_above = map.lower_bound(mcs);
    if (at_or_above != map.end() && at_or_above->first == mcs)
        return &at_or_above->second;
    if (at_or_above != map.begin()) {
        auto below = std::prev(at_or_above);
        if (below->first >= 0)
            return &below->second;
    }
    if (at_or_above != map.end() && at_or_above->first <= 7)
        return &at_or_above->second;
    return nullptr;
}

}  // namespace

int findClosestPowerIndex(const PowerCalibrationMap& map, int mcs, int* wanted_mw,
                          int frequency_mhz, RegulatoryDomain domain, bool adc_available) {
    // No wanted power counts as 0 mW: the lowest entry, never more power than asked for.
    int unlimited_mw = 0;
    if (wanted_mw == nullptr)
        wanted_mw = &unlimited_mw;
    if (map.empty() && !adc_available) {
        const int index = fixed_max_power_index(mcs, frequency_mhz, domain);
        fmt::print(stderr,
                   "Calibration file missing and ADC unavailable. Defaulting to max power idx "
                   "for {}MHz --> {}\n",
                   frequency_mhz, index);
        return index;
    }
    const std::map<int, int>* table = find_mcs_table(map, mcs);
    if (table == nullptr) {
        fmt::print(stderr,
                   "Power calibration data for MCS{} not found and no neighboring MCS "
                   "available.\n",
                   mcs);
        return 1;
    }
    if (domain == RegulatoryDomain::fcc && frequency_mhz >= 5180 && frequency_mhz <= 5320) {
        // UNII-1/2 under FCC: the wanted power is set to the limit whatever was asked.
        std::printf("Limiting power for frequency %d to max of 200mw (23dBm).\n", frequency_mhz);
        *wanted_mw = 200;
    }
    if (table->empty()) {
        // An MCS whose cells were all unreadable: nothing to choose from, so the lowest.
        fmt::print(stderr, "Power calibration data for MCS{} holds no entries.\n", mcs);
        return 1;
    }

    const int wanted = *wanted_mw;
    auto above = table->lower_bound(wanted);
    auto chosen = above;
    if (above == table->end()) {
        chosen = std::prev(table->end());
    } else if (above != table->begin()) {
        auto below = std::prev(above);
        const int64_t gap_above = int64_t{above->first} - wanted;
        const int64_t gap_below = int64_t{wanted} - below->first;
        // The lower entry wins a tie: never more power than needed.
        return gap_below <= gap_above ? below->second : above->second;
    }
    if (chosen->first < 0)
        return 1;
    return chosen->second;
}
