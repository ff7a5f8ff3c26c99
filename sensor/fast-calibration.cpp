// Fast calibration: six anchor levels are measured, every other level is the embedded
// default voltage shifted by the anchors' measured offsets from that default, interpolated
// linearly between neighbouring anchors and carried flat beyond the outer ones.
#include <cstdio>

#include "calibration-run.h"
#include "default_power_calibration.h"
#include "i2c-monitor.h"

const int FAST_CALIBRATION_LEVELS[6] = {10, 35, 45, 50, 56, 60};

namespace {

constexpr int kAnchorCount = 6;
constexpr int kEstimatedLevels = 60;  // 61 to 63 are never estimated
constexpr double kEstimateFloorMv = 1.0;

struct AnchorOffset {
    int level;
    double offset_mv;
};

bool is_anchor(int level) {
    for (int anchor : FAST_CALIBRATION_LEVELS) {
        if (anchor == level)
            return true;
    }
    return false;
}

// Anchors that give an offset: measured, not a temperature stop, and with a default.
int collect_offsets(const CalibrationResult* result, const char* band_tag, int mcs,
                    AnchorOffset offsets[]) {
    int count = 0;
    for (int anchor : FAST_CALIBRATION_LEVELS) {
        if (!result->measured[anchor] || result->mV[anchor] == kTempStopMarkerMv)
            continue;
        const double default_mv = default_cal_get_mv(band_tag, mcs, anchor);
        if (default_mv < 0.0)
            continue;
        offsets[count++] = {anchor, result->mV[anchor] - default_mv};
    }
    return count;
}

double offset_at(int level, const AnchorOffset offsets[], int count) {
    if (count == 0)
        return 0.0;
    if (level <= offsets[0].level)
        return offsets[0].offset_mv;
    if (level >= offsets[count - 1].level)
        return offsets[count - 1].offset_mv;
    for (int j = 0; j + 1 < count; ++j) {
        const AnchorOffset& low = offsets[j];
        const AnchorOffset& high = offsets[j + 1];
        if (level == low.level)
            return low.offset_mv;
        if (level > low.level && level < high.level) {
            const double fraction = static_cast<double>(level - low.level) /
                                    static_cast<double>(high.level - low.level);
            return low.offset_mv + fraction * (high.offset_mv - low.offset_mv);
        }
    }
    return offsets[count - 1].offset_mv;
}

}  // namespace

int report_missing_anchors(const CalibrationResult* result, int stop_level) {
    int missing = 0;
    for (int anchor = 1; anchor <= kEstimatedLevels; ++anchor) {
        if (!is_anchor(anchor) || (stop_level > 0 && anchor > stop_level))
            continue;
        if (!result->measured[anchor]) {
            fprintf(stderr,
                    "Error: fast calibration anchor power level %d did not produce a valid "
                    "measured reading. Aborting without writing CSV.\n",
                    anchor);
            ++missing;
        }
    }
    return missing;
}

void estimate_unmeasured_levels(CalibrationResult* result, const char* band_tag,
                                const char* band_name, int mcs, int stop_level) {
    puts("Generating estimated fast calibration rows from measured anchors...");
    if (stop_level > 0) {
        printf(
            "Safety stop occurred at power level %d; rows above that level will remain "
            "uncalibrated\n",
            stop_level);
    }
    for (int level = 1; level <= kEstimatedLevels; ++level) {
        if (result->measured[level] || is_anchor(level) || (stop_level > 0 && level > stop_level))
            continue;
        const double default_mv = default_cal_get_mv(band_tag, mcs, level);
        if (default_mv < 0.0) {
            printf(
                "Warning: No embedded default mV lookup for power level %d, leaving row "
                "uncalibrated\n",
                level);
            continue;
        }
        // Rebuilt for every level so that each estimate depends only on the anchors.
        AnchorOffset offsets[kAnchorCount];
        const int count = collect_offsets(result, band_tag, mcs, offsets);
        double estimate = default_mv + offset_at(level, offsets, count);
        if (estimate < kEstimateFloorMv)
            estimate = kEstimateFloorMv;

        double converted_mv = 0.0;
        double dbm = 0.0;
        if (read_csv_data_cached(&converted_mv, &dbm, mcs, band_name, estimate) < 0) {
            printf(
                "Warning: Failed to convert estimated mV to dBm for power level %d, leaving "
                "row uncalibrated\n",
                level);
            continue;
        }
        result->mV[level] = estimate;
        result->mW[level] = custom_exp10(dbm / 10.0);
        result->measured[level] = true;
    }
}

int perform_fast_calibration(int fd, int frequency_mhz, int mcs) {
    return perform_calibration_internal(fd, frequency_mhz, mcs, FAST_CALIBRATION_LEVELS,
                                        kAnchorCount, true);
}
