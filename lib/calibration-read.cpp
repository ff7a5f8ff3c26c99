// Reading calibration files for the checks: every level of every MCS pair, with what is
// missing kept apart from what was measured.
#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "calibration-csv.h"
#include "calibration-verdict.h"
#include "default_power_calibration.h"

namespace orca_verdict {

namespace {

using orca_calibration_csv::McsColumn;

constexpr long kMaxFileBytes = 4L << 20;  // a full file with 10 MCS pairs is about 10 KiB

std::string trim_line_end(std::string line) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
        line.pop_back();
    return line;
}

// A cell that is a plain number and nothing else (blanks around it allowed).
bool parse_number(const std::string& cell, double* value) {
    const char* begin = cell.c_str();
    char* end = nullptr;
    errno = 0;
    const double parsed = std::strtod(begin, &end);
    if (end == begin || errno == ERANGE || !std::isfinite(parsed))
        return false;
    while (*end == ' ' || *end == '\t' || *end == '\r')
        ++end;
    if (*end != '\0')
        return false;
    *value = parsed;
    return true;
}

bool is_temp_error(const std::string& cell) {
    return cell.compare(0, 11, "TEMP_ERROR_") == 0;
}

LevelCells read_level(const std::string& mv_cell, const std::string& mw_cell) {
    LevelCells level;
    if (is_temp_error(mv_cell) || is_temp_error(mw_cell)) {
        level.temperature_stop = true;
        return level;
    }
    double mv = 0.0;
    double mw = 0.0;
    // "-1" (not calibrated) fails the sign test like any other negative value.
    if (parse_number(mv_cell, &mv) && parse_number(mw_cell, &mw) && mv >= 0.0 && mw > 0.0) {
        level.has_value = true;
        level.mv = mv;
        level.mw = mw;
    }
    return level;
}

// The last column of each MCS wins, as the tool's merge updates the last match.
int find_column(const std::vector<McsColumn>& columns, int mcs) {
    int found = -1;
    for (const McsColumn& column : columns)
        if (column.mcs == mcs)
            found = static_cast<int>(column.column);
    return found;
}

}  // namespace

int parse_calibration_text(std::string_view text, Band band, CalibrationFile& file,
                           std::string& error) {
    if (band_tag(band)[0] == '?') {
        error = "unknown band";
        return -1;
    }
    size_t line_end = text.find('\n');
    const std::string header = trim_line_end(std::string(text.substr(0, line_end)));
    const std::vector<std::string> names = orca_calibration_csv::split_cells(header);
    if (names.empty() || names[0] != "Power_Level") {
        error = "its header does not begin with Power_Level";
        return -1;
    }
    const std::vector<McsColumn> mv_columns =
        orca_calibration_csv::find_mcs_columns(header, "_mV", false);
    const std::vector<McsColumn> mw_columns =
        orca_calibration_csv::find_mcs_columns(header, "_mW", false);

    struct Pair {
        int mcs;
        size_t mv;
        size_t mw;
    };
    std::vector<Pair> pairs;
    for (const McsColumn& mv : mv_columns) {
        const int mw = find_column(mw_columns, mv.mcs);
        bool seen = false;
        for (const Pair& pair : pairs)
            seen = seen || pair.mcs == mv.mcs;
        if (mw < 0 || seen)
            continue;
        pairs.push_back({mv.mcs, static_cast<size_t>(find_column(mv_columns, mv.mcs)),
                         static_cast<size_t>(mw)});
    }
    if (pairs.empty()) {
        error = "its header names no MCS<n>_mV,MCS<n>_mW pair";
        return -1;
    }

    CalibrationFile result;
    result.band = band;
    result.columns.resize(pairs.size());
    for (size_t i = 0; i < pairs.size(); ++i)
        result.columns[i].mcs = pairs[i].mcs;

    while (line_end != std::string_view::npos && line_end + 1 < text.size()) {
        const size_t start = line_end + 1;
        line_end = text.find('\n', start);
        const std::string line = trim_line_end(std::string(
            text.substr(start, line_end == std::string_view::npos ? std::string_view::npos
                                                                  : line_end - start)));
        const std::vector<std::string> cells = orca_calibration_csv::split_cells(line);
        int level = 0;
        if (cells.empty() || !orca_calibration_csv::parse_int32(cells[0], &level) || level < 1 ||
            level > kFileLevels)
            continue;
        for (size_t i = 0; i < pairs.size(); ++i) {
            const std::string none;
            const std::string& mv = pairs[i].mv < cells.size() ? cells[pairs[i].mv] : none;
            const std::string& mw = pairs[i].mw < cells.size() ? cells[pairs[i].mw] : none;
            result.columns[i].levels[level] = read_level(mv, mw);
        }
    }
    file = std::move(result);
    return 0;
}

int read_calibration_file(const std::string& path, Band band, CalibrationFile& file,
                          std::string& error) {
    FILE* in = std::fopen(path.c_str(), "rb");
    if (in == nullptr) {
        error = path + ": " + std::strerror(errno);
        return -1;
    }
    std::string text;
    char buffer[8192];
    size_t got = 0;
    bool too_large = false;
    while ((got = std::fread(buffer, 1, sizeof buffer, in)) > 0) {
        text.append(buffer, got);
        if (static_cast<long>(text.size()) > kMaxFileBytes) {
            too_large = true;
            break;
        }
    }
    const bool failed = std::ferror(in) != 0;
    std::fclose(in);
    if (failed) {
        error = path + ": read error";
        return -1;
    }
    if (too_large) {
        error = path + ": larger than a calibration file can be";
        return -1;
    }
    std::string why;
    if (parse_calibration_text(text, band, file, why) != 0) {
        error = path + " is not a calibration file: " + why;
        return -1;
    }
    return 0;
}

int read_calibration_dir(const std::string& dir, std::vector<CalibrationFile>& files,
                         std::string& error) {
    struct stat info {};
    if (stat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        error = "no calibration directory " + dir;
        return -1;
    }
    std::vector<CalibrationFile> read;
    for (Band band : {Band::b2_4, Band::b5_1, Band::b5_8}) {
        const std::string path = dir + "/calibrated_" + band_tag(band) + ".csv";
        if (stat(path.c_str(), &info) != 0 && errno == ENOENT)
            continue;
        CalibrationFile file;
        if (read_calibration_file(path, band, file, error) != 0)
            return -1;
        read.push_back(std::move(file));
    }
    files = std::move(read);
    return static_cast<int>(files.size());
}

int default_curve(Band band, int mcs, CalibrationColumn& column) {
    if (mcs < 0)
        return -1;
    const int band_index = static_cast<int>(band);
    if (band_index < 0 || band_index > 2)
        return -1;
    const int table_mcs = mcs >= 3 ? 3 : (mcs >= 1 ? 1 : 0);
    // The tables are fixed: read each once. Function-local statics are initialised once
    // even with several threads.
    static const std::vector<CalibrationFile> tables = [] {
        std::vector<CalibrationFile> parsed(3);
        std::string ignored;
        parse_calibration_text(default_cal::kCalibrated_2_4, Band::b2_4, parsed[0], ignored);
        parse_calibration_text(default_cal::kCalibrated_5_1, Band::b5_1, parsed[1], ignored);
        parse_calibration_text(default_cal::kCalibrated_5_8, Band::b5_8, parsed[2], ignored);
        return parsed;
    }();
    for (const CalibrationColumn& candidate : tables[band_index].columns) {
        if (candidate.mcs == table_mcs) {
            column = candidate;
            return 0;
        }
    }
    return -1;
}

}  // namespace orca_verdict
