// The checks of one calibration: each MCS column of each band file is judged on its own,
// over the power indices the radio accepts.
#include "calibration-verdict.h"

#include <algorithm>
#include <cmath>

#include <fmt/core.h>

namespace orca_verdict {

namespace {

// Comparisons of dB values computed from two-decimal mW cells: a bound that the text
// meets exactly must not fail on the last bit of a logarithm.
constexpr double kSlackDb = 1e-9;
constexpr double kKneeWindowDb = 0.5;
constexpr double kMonotonicDropDb = 0.5;
constexpr double kMinimumSpanDb = 3.0;
constexpr int kEarlyKneeLevels = 8;
constexpr double kDefaultWarnDb = 3.0;
constexpr double kDefaultFailDb = 6.0;
constexpr double kChangedWarnDb = 1.0;
constexpr double kChangedFailDb = 3.0;

// "3, 7-9, 12": the levels as ascending runs.
std::string level_list(const std::vector<int>& levels) {
    std::string text;
    for (size_t i = 0; i < levels.size();) {
        size_t j = i;
        while (j + 1 < levels.size() && levels[j + 1] == levels[j] + 1)
            ++j;
        if (!text.empty())
            text += ", ";
        text += j == i ? fmt::format("{}", levels[i]) : fmt::format("{}-{}", levels[i], levels[j]);
        i = j + 1;
    }
    return text;
}

struct Difference {
    bool any = false;
    double db = 0.0;
    int level = 0;
};

// The largest absolute difference over the judged levels both columns have.
Difference largest_difference(const CalibrationColumn& a, const CalibrationColumn& b) {
    Difference result;
    for (int level = 1; level <= kJudgedLevels; ++level) {
        if (!a.levels[level].has_value || !b.levels[level].has_value)
            continue;
        const double difference =
            std::fabs(level_dbm(a.levels[level]) - level_dbm(b.levels[level]));
        if (!result.any || difference > result.db) {
            result.any = true;
            result.db = difference;
            result.level = level;
        }
    }
    return result;
}

void add(ColumnVerdict& verdict, const char* code, Severity severity, std::string message) {
    verdict.findings.push_back({code, severity, std::move(message)});
    verdict.verdict = std::max(verdict.verdict, severity);
}

void check_levels(ColumnVerdict& verdict) {
    const CalibrationColumn& column = verdict.column;
    std::vector<int> missing;
    std::vector<int> stopped;
    for (int level = 1; level <= kJudgedLevels; ++level) {
        if (column.levels[level].temperature_stop)
            stopped.push_back(level);
        else if (!column.levels[level].has_value)
            missing.push_back(level);
    }
    if (!missing.empty())
        add(verdict, "missing-levels", Severity::fail,
            fmt::format("no value at level{} {}", missing.size() > 1 ? "s" : "",
                        level_list(missing)));
    if (!stopped.empty())
        add(verdict, "temperature-stop", Severity::fail,
            fmt::format("the run stopped too hot at level{} {}", stopped.size() > 1 ? "s" : "",
                        level_list(stopped)));
}

void check_shape(ColumnVerdict& verdict) {
    const CalibrationColumn& column = verdict.column;
    double lowest = 0.0;
    double highest = 0.0;
    int highest_level = 0;
    double worst_drop = 0.0;
    int worst_level = 0;
    int worst_peak_level = 0;
    for (int level = 1; level <= kJudgedLevels; ++level) {
        if (!column.levels[level].has_value)
            continue;
        const double dbm = level_dbm(column.levels[level]);
        if (!verdict.has_max) {
            verdict.has_max = true;
            lowest = highest = dbm;
            highest_level = level;
            continue;
        }
        const double drop = highest - dbm;
        if (drop > kMonotonicDropDb + kSlackDb && drop > worst_drop) {
            worst_drop = drop;
            worst_level = level;
            worst_peak_level = highest_level;
        }
        lowest = std::min(lowest, dbm);
        if (dbm > highest) {
            highest = dbm;
            highest_level = level;
        }
    }
    if (!verdict.has_max)
        return;
    verdict.max_dbm = highest;
    if (worst_level > 0)
        add(verdict, "not-monotonic", Severity::fail,
            fmt::format("level {} is {:.2f} dB below level {}", worst_level, worst_drop,
                        worst_peak_level));
    if (highest - lowest < kMinimumSpanDb - kSlackDb)
        add(verdict, "no-response", Severity::fail,
            fmt::format("outputs span only {:.2f} dB ({:.2f} to {:.2f} dBm)", highest - lowest,
                        lowest, highest));
}

void check_against_default(ColumnVerdict& verdict) {
    if (!verdict.has_default)
        return;
    const int default_knee = knee_index(verdict.default_column);
    if (verdict.knee_index > 0 && default_knee > 0 &&
        default_knee - verdict.knee_index > kEarlyKneeLevels)
        add(verdict, "early-saturation", Severity::warn,
            fmt::format("knee at level {}, {} levels below the default knee at level {}",
                        verdict.knee_index, default_knee - verdict.knee_index, default_knee));
    const Difference difference = largest_difference(verdict.column, verdict.default_column);
    if (difference.any && difference.db > kDefaultWarnDb + kSlackDb)
        add(verdict, "default-deviation",
            difference.db > kDefaultFailDb + kSlackDb ? Severity::fail : Severity::warn,
            fmt::format("{:.2f} dB from the default curve (MCS {}) at level {}", difference.db,
                        verdict.default_column.mcs, difference.level));
}

void check_against_previous(ColumnVerdict& verdict, const std::vector<CalibrationFile>* previous) {
    if (previous == nullptr)
        return;
    for (const CalibrationFile& file : *previous) {
        if (file.band != verdict.band)
            continue;
        for (const CalibrationColumn& column : file.columns) {
            if (column.mcs != verdict.column.mcs)
                continue;
            const Difference difference = largest_difference(verdict.column, column);
            if (difference.any && difference.db > kChangedWarnDb + kSlackDb)
                add(verdict, "changed",
                    difference.db > kChangedFailDb + kSlackDb ? Severity::fail : Severity::warn,
                    fmt::format("{:.2f} dB from the previous calibration at level {}",
                                difference.db, difference.level));
            return;
        }
    }
}

void check_limit(ColumnVerdict& verdict) {
    if (!verdict.has_limit)
        return;
    verdict.max_legal_index = max_legal_index(verdict.column, verdict.limit_dbm);
    const LevelCells& first = verdict.column.levels[1];
    if (first.has_value && level_dbm(first) > verdict.limit_dbm)
        add(verdict, "no-legal-level", Severity::fail,
            fmt::format("level 1 gives {:.2f} dBm, above the limit of {:.2f} dBm", level_dbm(first),
                        verdict.limit_dbm));
}

}  // namespace

const char* band_name(Band band) {
    switch (band) {
        case Band::b2_4:
            return "2.4";
        case Band::b5_1:
            return "5.1";
        case Band::b5_8:
            return "5.8";
    }
    return "?";
}

const char* band_tag(Band band) {
    switch (band) {
        case Band::b2_4:
            return "2_4";
        case Band::b5_1:
            return "5_1";
        case Band::b5_8:
            return "5_8";
    }
    return "?";
}

const char* severity_name(Severity severity) {
    switch (severity) {
        case Severity::pass:
            return "pass";
        case Severity::warn:
            return "warn";
        case Severity::fail:
            return "fail";
    }
    return "?";
}

double level_dbm(const LevelCells& level) {
    return 10.0 * std::log10(level.mw);
}

int knee_index(const CalibrationColumn& column) {
    const LevelCells& top = column.levels[kJudgedLevels];
    if (!top.has_value)
        return -1;
    const double top_dbm = level_dbm(top);
    for (int level = 1; level <= kJudgedLevels; ++level) {
        const LevelCells& cells = column.levels[level];
        if (cells.has_value && std::fabs(level_dbm(cells) - top_dbm) <= kKneeWindowDb + kSlackDb)
            return level;
    }
    return kJudgedLevels;
}

int judge_calibration(const std::vector<CalibrationFile>& files, const VerdictOptions& options,
                      const std::vector<CalibrationFile>* previous, Verdict& verdict) {
    double probe = 0.0;
    if (detector_limit_dbm(Band::b2_4, options.region, options.antenna_gain_dbi,
                           options.cable_loss_db, &probe) < 0)
        return -1;
    Verdict result;
    result.options = options;
    for (const CalibrationFile& file : files) {
        for (const CalibrationColumn& column : file.columns) {
            ColumnVerdict judged;
            judged.band = file.band;
            judged.column = column;
            judged.has_default = default_curve(file.band, column.mcs, judged.default_column) == 0;
            judged.knee_index = knee_index(column);
            judged.has_limit =
                detector_limit_dbm(file.band, options.region, options.antenna_gain_dbi,
                                   options.cable_loss_db, &judged.limit_dbm) == 0;
            check_levels(judged);
            check_shape(judged);
            check_against_default(judged);
            check_against_previous(judged, previous);
            check_limit(judged);
            result.verdict = std::max(result.verdict, judged.verdict);
            result.columns.push_back(std::move(judged));
        }
    }
    verdict = std::move(result);
    return 0;
}

}  // namespace orca_verdict
