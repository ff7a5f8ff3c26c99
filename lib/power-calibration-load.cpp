// Reading the per-band calibration files (and the built-in defaults, which share their
// form) into MCS -> (mW -> power index) maps.
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <fmt/core.h>

#include "calibration-csv.h"
#include "orca-vtx-helpers.h"

namespace {

using orca_calibration_csv::McsColumn;
using orca_calibration_csv::parse_int32;
using orca_calibration_csv::split_cells;

// Unmeasured cells hold -1. The test is on the integral part only, so "-1.0" and "-1.7"
// count as unmeasured too.
bool is_unmeasured_cell(const std::string& cell) {
    long parsed = std::strtol(cell.c_str(), nullptr, 10);
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<unsigned long>(parsed))) == -1;
}

// The cell's milliwatts rounded half away from zero; false for text that is no number or
// whose value has no 32-bit key (out of range, infinite, not a number).
bool parse_rounded_mw(const std::string& cell, int* mw) {
    const char* begin = cell.c_str();
    char* end = nullptr;
    errno = 0;
    double value = std::strtod(begin, &end);
    if (end == begin || errno == ERANGE)
        return false;
    double rounded = std::round(value);
    if (!(rounded >= INT_MIN && rounded <= INT_MAX))
        return false;
    *mw = static_cast<int>(rounded);
    return true;
}

}  // namespace

PowerCalibrationMap loadPowerCalibrationDataFromStream(std::istream& in) {
    PowerCalibrationMap map;
    std::string line;
    if (!std::getline(in, line))
        return map;
    const std::vector<McsColumn> columns =
        orca_calibration_csv::find_mcs_columns(line, "_mW", true);

    while (std::getline(in, line)) {
        const std::vector<std::string> cells = split_cells(line);
        if (cells.empty())
            continue;
        int power_level = 0;
        if (!parse_int32(cells[0], &power_level)) {
            fmt::print(stderr, "Error parsing power level: {}\n", cells[0]);
            continue;
        }
        for (const McsColumn& column : columns) {
            if (column.column >= cells.size()) {
                fmt::print(stderr, "Not enough columns in line: {}\n", line);
                continue;
            }
            const std::string& cell = cells[column.column];
            if (is_unmeasured_cell(cell))
                continue;
            // The MCS is recorded even when none of its cells turns out readable.
            std::map<int, int>& table = map[column.mcs];
            int mw = 0;
            if (parse_rounded_mw(cell, &mw))
                table[mw] = power_level;
        }
    }
    return map;
}

PowerCalibrationMap loadPowerCalibrationDataFromString(std::string_view text) {
    std::istringstream in{std::string(text)};
    return loadPowerCalibrationDataFromStream(in);
}

PowerCalibrationMap loadPowerCalibrationData(const std::string& path) {
    std::ifstream in(path);
    if (!in.is_open())
        return {};
    return loadPowerCalibrationDataFromStream(in);
}

PowerCalibrationMap loadPowerCalibrationOrDefault(const std::string& path,
                                                  std::string_view default_text,
                                                  const char* band_label) {
    PowerCalibrationMap map = loadPowerCalibrationData(path);
    if (map.empty()) {
        fmt::print(stderr, "Calibration file {} missing or empty, using embedded default for {}.\n",
                   path, band_label ? band_label : "");
        map = loadPowerCalibrationDataFromString(default_text);
    }
    normalizeMcsCoverage(map);
    return map;
}

void normalizeMcsCoverage(PowerCalibrationMap& map) {
    if (map.empty())
        return;
    // Only MCS 1 and 3 serve as sources: the default tables, and most calibration runs,
    // carry MCS 0, 1 and 3 alone.
    auto mcs1 = map.find(1);
    if (mcs1 != map.end() && map.count(2) == 0)
        map[2] = mcs1->second;
    auto mcs3 = map.find(3);
    if (mcs3 != map.end()) {
        const std::map<int, int> source = mcs3->second;
        for (int mcs = 4; mcs <= 7; ++mcs) {
            if (map.count(mcs) == 0)
                map[mcs] = source;
        }
    }
}

void printPowerMap(const PowerCalibrationMap& map) {
    for (const auto& [mcs, table] : map) {
        fmt::print(stderr, "MCS Index: {}\n", mcs);
        for (const auto& [mw, index] : table)
            fmt::print(stderr, "  Output Power (mW): {} -> Power Index: {}\n", mw, index);
        fmt::print(stderr, "\n");
        std::fflush(stderr);
    }
}
