#include "rf-model.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "board-physics.h"
#include "default_power_calibration.h"

namespace board_sim {

namespace {

constexpr int kMaxPowerIndex = 60;
constexpr const char* kBandTags[] = {"2_4", "5_1", "5_8"};
constexpr double kNoCarrierDbm = -99.0;

struct CurvePoint {
    double mv;
    double dbm;
};

std::string_view default_table(const std::string& tag) {
    if (tag == "2_4")
        return default_cal::kCalibrated_2_4;
    if (tag == "5_1")
        return default_cal::kCalibrated_5_1;
    return default_cal::kCalibrated_5_8;
}

// The tables list MCS 0, 1 and 3; the others borrow the nearest listed one below.
int listed_mcs(int mcs) {
    if (mcs >= 3)
        return 3;
    return mcs >= 1 ? 1 : 0;
}

// Output power of a power level at an MCS, from the mW column of the default table.
double default_mw(const std::string& tag, int mcs, int power_index) {
    const std::string column = "MCS" + std::to_string(listed_mcs(mcs)) + "_mW";
    std::string_view text = default_table(tag);
    size_t end = text.find('\n');
    std::string header(text.substr(0, end));
    int column_index = -1;
    int field = 0;
    for (size_t start = 0; start <= header.size(); ++field) {
        size_t comma = header.find(',', start);
        if (header.substr(start, comma - start) == column) {
            column_index = field;
            break;
        }
        if (comma == std::string::npos)
            break;
        start = comma + 1;
    }
    while (column_index >= 0 && end != std::string_view::npos) {
        size_t start = end + 1;
        end = text.find('\n', start);
        std::string line(text.substr(start, end == std::string_view::npos ? end : end - start));
        if (std::atoi(line.c_str()) != power_index)
            continue;
        size_t position = 0;
        for (int i = 0; i < column_index && position != std::string::npos; ++i) {
            position = line.find(',', position);
            if (position != std::string::npos)
                ++position;
        }
        return position == std::string::npos ? -1.0 : std::atof(line.c_str() + position);
    }
    return -1.0;
}

int clamp_power(int power_index) {
    return std::clamp(power_index, 1, kMaxPowerIndex);
}

double curve_dbm_at(const BoardState& state, int power_index) {
    const std::vector<double>& curve = state.power_curve_dbm;
    const size_t entry = static_cast<size_t>(clamp_power(power_index) - 1);
    return entry < curve.size() ? curve[entry] : curve.back();
}

double curve_detector_mv(int power_index) {
    return kCurveBaseMv + kCurveStepMv * clamp_power(power_index);
}

FILE* open_table(const std::string& path) {
    FILE* file = std::fopen(path.c_str(), "w");
    if (file == nullptr)
        std::fprintf(stderr, "board-sim: cannot write %s: %s\n", path.c_str(),
                     std::strerror(errno));
    return file;
}

int close_table(FILE* file, const std::string& path) {
    if (std::fclose(file) != 0) {
        std::fprintf(stderr, "board-sim: cannot write %s: %s\n", path.c_str(),
                     std::strerror(errno));
        return -1;
    }
    return 0;
}

// One row per power index at its detector voltage, the same dBm for every MCS, and a row
// for the idle detector that reads as no carrier at all. Full precision, so that a reading
// comes back as exactly the curve's value.
int write_curve_tables(const std::string& dir, const BoardState& state) {
    for (const char* tag : kBandTags) {
        const std::string path = dir + "/" + tag + "_mv_to_dbm.csv";
        FILE* file = open_table(path);
        if (file == nullptr)
            return -1;
        std::fprintf(file,
                     "mV,MCS0_dBm,MCS1_dBm,MCS2_dBm,MCS3_dBm,MCS4_dBm,MCS5_dBm,MCS6_dBm,"
                     "MCS7_dBm\n");
        std::fprintf(file, "%.17g", kIdleDetectorMv);
        for (int mcs = 0; mcs < 8; ++mcs)
            std::fprintf(file, ",%.17g", kNoCarrierDbm);
        std::fprintf(file, "\n");
        for (int level = 1; level <= kMaxPowerIndex; ++level) {
            std::fprintf(file, "%.17g", curve_detector_mv(level));
            for (int mcs = 0; mcs < 8; ++mcs)
                std::fprintf(file, ",%.17g", curve_dbm_at(state, level));
            std::fprintf(file, "\n");
        }
        if (close_table(file, path) != 0)
            return -1;
    }
    return 0;
}

// (mV, dBm) over the power levels of one band and MCS, ordered by voltage.
std::vector<CurvePoint> detector_curve(const std::string& tag, int mcs) {
    std::vector<CurvePoint> curve;
    for (int level = 1; level <= kMaxPowerIndex; ++level) {
        const double mv = default_cal_get_mv(tag.c_str(), listed_mcs(mcs), level);
        const double mw = default_mw(tag, mcs, level);
        if (mv > 0.0 && mw > 0.0)
            curve.push_back({mv, 10.0 * std::log10(mw)});
    }
    std::stable_sort(curve.begin(), curve.end(),
                     [](const CurvePoint& a, const CurvePoint& b) { return a.mv < b.mv; });
    return curve;
}

// Piecewise-linear in dBm between the curve's points, flat beyond its ends.
double curve_dbm(const std::vector<CurvePoint>& curve, double mv) {
    if (curve.empty())
        return 0.0;
    if (mv <= curve.front().mv)
        return curve.front().dbm;
    for (size_t i = 1; i < curve.size(); ++i) {
        if (mv <= curve[i].mv) {
            const CurvePoint& a = curve[i - 1];
            const CurvePoint& b = curve[i];
            if (b.mv == a.mv)
                return b.dbm;
            return a.dbm + (b.dbm - a.dbm) * (mv - a.mv) / (b.mv - a.mv);
        }
    }
    return curve.back().dbm;
}

int tag_number(const char* tag) {
    for (int i = 0; i < 3; ++i)
        if (std::strcmp(tag, kBandTags[i]) == 0)
            return i;
    return 2;
}

int listed_number(int mcs) {
    const int listed = listed_mcs(mcs);
    return listed == 3 ? 2 : listed;
}

// The default tables parsed once: output dBm per power level and the detector curve, per
// band and listed MCS.
struct NominalTables {
    double dbm[3][3][kMaxPowerIndex + 1];
    std::vector<CurvePoint> curve[3][3];
    NominalTables() {
        const int listed[3] = {0, 1, 3};
        for (int t = 0; t < 3; ++t) {
            // Each table is read once here: every process that changes a real board's
            // state needs these, and the simulated service runs once per power change.
            const std::vector<std::vector<std::string>> rows = split_table(kBandTags[t]);
            for (int m = 0; m < 3; ++m) {
                const std::string mcs = "MCS" + std::to_string(listed[m]);
                const int mv_column = column_of(rows, mcs + "_mV");
                const int mw_column = column_of(rows, mcs + "_mW");
                double mv_at[kMaxPowerIndex + 1] = {};
                for (int level = 0; level <= kMaxPowerIndex; ++level)
                    dbm[t][m][level] = kNoCarrierDbm;
                for (size_t r = 1; r < rows.size(); ++r) {
                    const int level = std::atoi(rows[r][0].c_str());
                    if (level < 1 || level > kMaxPowerIndex)
                        continue;
                    const double mw = cell(rows[r], mw_column);
                    mv_at[level] = cell(rows[r], mv_column);
                    dbm[t][m][level] = mw > 0.0 ? 10.0 * std::log10(mw) : kNoCarrierDbm;
                }
                for (int level = 1; level <= kMaxPowerIndex; ++level) {
                    if (mv_at[level] > 0.0 && dbm[t][m][level] > kNoCarrierDbm)
                        curve[t][m].push_back({mv_at[level], dbm[t][m][level]});
                }
                std::stable_sort(
                    curve[t][m].begin(), curve[t][m].end(),
                    [](const CurvePoint& a, const CurvePoint& b) { return a.mv < b.mv; });
            }
        }
    }

    static std::vector<std::vector<std::string>> split_table(const std::string& tag) {
        std::vector<std::vector<std::string>> rows;
        const std::string text(default_table(tag));
        size_t start = 0;
        while (start < text.size()) {
            size_t end = text.find('\n', start);
            if (end == std::string::npos)
                end = text.size();
            std::vector<std::string> fields;
            for (size_t field = start; field <= end;) {
                size_t comma = text.find(',', field);
                if (comma == std::string::npos || comma > end)
                    comma = end;
                fields.push_back(text.substr(field, comma - field));
                field = comma + 1;
            }
            rows.push_back(fields);
            start = end + 1;
        }
        return rows;
    }

    static int column_of(const std::vector<std::vector<std::string>>& rows,
                         const std::string& name) {
        if (rows.empty())
            return -1;
        for (size_t i = 0; i < rows[0].size(); ++i)
            if (rows[0][i] == name)
                return static_cast<int>(i);
        return -1;
    }

    static double cell(const std::vector<std::string>& row, int column) {
        return column >= 0 && static_cast<size_t>(column) < row.size()
                   ? std::atof(row[static_cast<size_t>(column)].c_str())
                   : -1.0;
    }
};

const NominalTables& nominal_tables() {
    static const NominalTables tables;
    return tables;
}

}  // namespace

double nominal_output_dbm(const char* tag, int mcs, int power_index) {
    return nominal_tables().dbm[tag_number(tag)][listed_number(mcs)][clamp_power(power_index)];
}

double nominal_top_dbm(const char* tag, int mcs) {
    double top = kNoCarrierDbm;
    for (int level = 1; level <= kMaxPowerIndex; ++level)
        top = std::max(top, nominal_output_dbm(tag, mcs, level));
    return top;
}

double nominal_detector_mv(const char* tag, int mcs, double dbm) {
    const std::vector<CurvePoint>& curve =
        nominal_tables().curve[tag_number(tag)][listed_number(mcs)];
    if (curve.empty())
        return kIdleDetectorMv;
    const CurvePoint& first = curve.front();
    if (dbm <= first.dbm) {
        // Below the table the diode works in its square-law region: the swing above the idle
        // voltage is proportional to the power.
        return kIdleDetectorMv +
               (first.mv - kIdleDetectorMv) * std::pow(10.0, (dbm - first.dbm) / 10.0);
    }
    // The first voltage at which the table's curve reaches the output (the measured curve
    // is not everywhere monotonic).
    for (size_t i = 1; i < curve.size(); ++i) {
        const CurvePoint& a = curve[i - 1];
        const CurvePoint& b = curve[i];
        if (b.dbm >= dbm && a.dbm < dbm)
            return a.mv + (b.mv - a.mv) * (dbm - a.dbm) / (b.dbm - a.dbm);
    }
    // Above the table: on with the slope of its top tenth, in mV per dB.
    const CurvePoint& last = curve.back();
    const CurvePoint& lower = curve[curve.size() - 1 - std::min<size_t>(curve.size() - 1, 6)];
    double top_dbm = last.dbm;
    for (const CurvePoint& point : curve)
        top_dbm = std::max(top_dbm, point.dbm);
    const double rise = top_dbm - lower.dbm;
    const double mv_per_db = rise > 0.1 ? (last.mv - lower.mv) / rise : 20.0;
    return last.mv + mv_per_db * (dbm - top_dbm);
}

// The simulator's own copy of the tool's band rule, kept apart on purpose: a board that
// shared the tool's code would agree with the tool's mistakes instead of catching them.
const char* band_tag_for_frequency(int frequency_mhz) {
    const int hundreds = frequency_mhz / 100;
    if (hundreds >= 23 && hundreds <= 25)
        return "2_4";
    if (hundreds >= 50 && hundreds <= 55)
        return "5_1";
    if (hundreds >= 56 && hundreds <= 59)
        return "5_8";
    return nullptr;
}

double detector_mv(const BoardState& state, int channel) {
    const double offset = channel == 0 ? state.ch0_offset_mv : state.ch1_offset_mv;
    const char* tag = band_tag_for_frequency(state.frequency_mhz);
    const int carrier_channel = (tag != nullptr && std::strcmp(tag, "2_4") == 0) ? 0 : 1;
    if (!state.tx_on || tag == nullptr || channel != carrier_channel)
        return kIdleDetectorMv + offset;
    if (!state.power_curve_dbm.empty())
        return curve_detector_mv(state.power_index) + offset;
    const double mv =
        default_cal_get_mv(tag, listed_mcs(state.mcs), clamp_power(state.power_index));
    return (mv > 0.0 ? mv : kIdleDetectorMv) + offset;
}

double output_dbm(const BoardState& state) {
    if (has_physics(state)) {
        BoardPhysics physics;
        std::string error;
        if (read_physics(state, &physics, &error) == 0)
            return settled_output_dbm(state, physics, state.temperature_c);
    }
    const char* tag = band_tag_for_frequency(state.frequency_mhz);
    if (!state.tx_on || tag == nullptr)
        return kNoCarrierDbm;
    if (!state.power_curve_dbm.empty())
        return curve_dbm_at(state, state.power_index);
    const double mw = default_mw(tag, state.mcs, clamp_power(state.power_index));
    return mw > 0.0 ? 10.0 * std::log10(mw) : kNoCarrierDbm;
}

int write_conversion_tables(const std::string& dir, const BoardState& state) {
    if (!state.power_curve_dbm.empty())
        return write_curve_tables(dir, state);
    return write_conversion_tables(dir);
}

int write_conversion_tables(const std::string& dir) {
    for (const char* tag : kBandTags) {
        const std::string path = dir + "/" + tag + "_mv_to_dbm.csv";
        FILE* file = std::fopen(path.c_str(), "w");
        if (file == nullptr) {
            std::fprintf(stderr, "board-sim: cannot write %s: %s\n", path.c_str(),
                         std::strerror(errno));
            return -1;
        }
        std::vector<CurvePoint> curves[8];
        for (int mcs = 0; mcs < 8; ++mcs)
            curves[mcs] = detector_curve(tag, mcs);
        std::fprintf(file,
                     "mV,MCS0_dBm,MCS1_dBm,MCS2_dBm,MCS3_dBm,MCS4_dBm,MCS5_dBm,MCS6_dBm,"
                     "MCS7_dBm\n");
        // A 5 mV grid over the converter's whole range: 361 rows, well under the reader's
        // limit of 1000.
        for (int mv = 0; mv <= 1800; mv += 5) {
            std::fprintf(file, "%d", mv);
            for (int mcs = 0; mcs < 8; ++mcs)
                std::fprintf(file, ",%.2f", curve_dbm(curves[mcs], mv));
            std::fprintf(file, "\n");
        }
        if (std::fclose(file) != 0) {
            std::fprintf(stderr, "board-sim: cannot write %s: %s\n", path.c_str(),
                         std::strerror(errno));
            return -1;
        }
    }
    return 0;
}

}  // namespace board_sim
