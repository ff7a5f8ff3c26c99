// Regional output limits, turned into the highest output allowed at the detector.
// EIRP = detector output - cable loss + antenna gain.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "calibration-verdict.h"

namespace orca_verdict {

namespace {

// ETSI limits are mean EIRP.
// 2.4 GHz: 20 dBm, ETSI EN 300 328 V2.2.2 clause 4.3.2.2 (2400-2483.5 MHz).
// 5.1 GHz: 23 dBm, ETSI EN 301 893 V2.1.1 clause 4.2.3.2, the 5150-5350 MHz sub-bands; the
//   file's band reaches into 5470-5725 MHz (30 dBm with TPC), so the strictest part counts.
// 5.8 GHz: 14 dBm (25 mW), ETSI EN 300 440 V2.2.1 for short-range devices at 5725-5875 MHz
//   (ERC Recommendation 70-03 Annex 1, band h).
constexpr double kEtsiEirpDbm[3] = {20.0, 23.0, 14.0};

// FCC limits are conducted output power at the antenna port.
// 2.4 GHz: 30 dBm (1 W), 47 CFR 15.247(b)(3).
// 5.1 GHz: 24 dBm (250 mW), 47 CFR 15.407(a)(2), U-NII-2A and 2C, the strictest part of the
//   band (U-NII-1 allows 1 W for access points).
// 5.8 GHz: 30 dBm (1 W), 47 CFR 15.247(b)(3).
// Each is lowered by the antenna gain above 6 dBi, 15.247(b)(4) and 15.407(a)(2).
constexpr double kFccConductedDbm[3] = {30.0, 24.0, 30.0};
constexpr double kFccGainAllowanceDbi = 6.0;

}  // namespace

const char* region_name(Region region) {
    switch (region) {
        case Region::none:
            return "none";
        case Region::fcc:
            return "fcc";
        case Region::etsi:
            return "etsi";
    }
    return "?";
}

int region_from_name(const char* name, Region* region) {
    if (name == nullptr || region == nullptr)
        return -1;
    for (Region candidate : {Region::none, Region::fcc, Region::etsi}) {
        if (std::strcmp(name, region_name(candidate)) == 0) {
            *region = candidate;
            return 0;
        }
    }
    return -1;
}

int detector_limit_dbm(Band band, Region region, double antenna_gain_dbi, double cable_loss_db,
                       double* limit_dbm) {
    const int band_index = static_cast<int>(band);
    if (limit_dbm == nullptr || band_index < 0 || band_index > 2 ||
        !std::isfinite(antenna_gain_dbi) || !std::isfinite(cable_loss_db) || cable_loss_db < 0.0)
        return -1;
    switch (region) {
        case Region::none:
            return 1;
        case Region::etsi:
            *limit_dbm = kEtsiEirpDbm[band_index] - antenna_gain_dbi + cable_loss_db;
            return 0;
        case Region::fcc:
            *limit_dbm = kFccConductedDbm[band_index] -
                         std::max(0.0, antenna_gain_dbi - kFccGainAllowanceDbi) + cable_loss_db;
            return 0;
    }
    return -1;
}

int max_legal_index(const CalibrationColumn& column, double limit_dbm) {
    if (std::isnan(limit_dbm))
        return -1;
    int legal = -1;
    for (int level = 1; level <= kJudgedLevels; ++level) {
        const LevelCells& cells = column.levels[level];
        if (!cells.has_value || level_dbm(cells) > limit_dbm)
            break;
        legal = level;
    }
    return legal;
}

}  // namespace orca_verdict
