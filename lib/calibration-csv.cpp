#include "calibration-csv.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <sstream>

#include <fmt/core.h>

namespace orca_calibration_csv {

std::vector<std::string> split_cells(const std::string& line) {
    std::vector<std::string> cells;
    std::istringstream in(line);
    std::string cell;
    while (std::getline(in, cell, ','))
        cells.push_back(cell);
    return cells;
}

bool parse_int32(const std::string& text, int* value) {
    const char* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    long parsed = std::strtol(begin, &end, 10);
    if (end == begin || errno == ERANGE || parsed < INT_MIN || parsed > INT_MAX)
        return false;
    *value = static_cast<int>(parsed);
    return true;
}

std::vector<McsColumn> find_mcs_columns(const std::string& header, const char* unit,
                                        bool report_bad_names) {
    std::vector<McsColumn> columns;
    if (unit == nullptr)
        return columns;
    const std::vector<std::string> names = split_cells(header);
    for (size_t i = 0; i < names.size(); ++i) {
        const std::string& name = names[i];
        if (name.compare(0, 3, "MCS") != 0 || name.find(unit) == std::string::npos ||
            name.size() < 4)
            continue;
        const size_t underscore = name.find('_', 3);
        if (underscore == std::string::npos)
            continue;
        int mcs = 0;
        if (!parse_int32(name.substr(3, underscore - 3), &mcs)) {
            if (report_bad_names)
                fmt::print(stderr, "Error extracting MCS index from column name: {}\n", name);
            continue;
        }
        columns.push_back({mcs, i});
    }
    return columns;
}

}  // namespace orca_calibration_csv
