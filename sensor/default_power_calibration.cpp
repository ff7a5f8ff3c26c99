#include "default_power_calibration.h"

#include <cstdlib>
#include <cstring>
#include <string>

namespace default_cal {

namespace {

std::string_view table_for_tag(const char* band) {
    if (std::strcmp(band, "2_4") == 0)
        return kCalibrated_2_4;
    if (std::strcmp(band, "5_1") == 0)
        return kCalibrated_5_1;
    if (std::strcmp(band, "5_8") == 0)
        return kCalibrated_5_8;
    return {};
}

// Field `index` (0-based) of a comma-separated line, or false when the line is shorter.
bool field_at(std::string_view line, int index, std::string_view* field) {
    size_t start = 0;
    for (int i = 0; i < index; ++i) {
        size_t comma = line.find(',', start);
        if (comma == std::string_view::npos)
            return false;
        start = comma + 1;
    }
    size_t end = line.find(',', start);
    *field =
        line.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
    return true;
}

}  // namespace

double default_cal_get_mv(const char* band, int mcs, int power_level) {
    if (power_level < 1 || power_level > 63 || band == nullptr)
        return -1.0;
    std::string_view table = table_for_tag(band);
    if (table.empty())
        return -1.0;

    const std::string column = "MCS" + std::to_string(mcs) + "_mV";
    size_t line_end = table.find('\n');
    std::string_view header = table.substr(0, line_end);
    int column_index = -1;
    std::string_view field;
    for (int i = 0; field_at(header, i, &field); ++i) {
        if (field == column) {
            column_index = i;
            break;
        }
    }
    if (column_index < 0)
        return -1.0;

    while (line_end != std::string_view::npos && line_end + 1 < table.size()) {
        size_t start = line_end + 1;
        line_end = table.find('\n', start);
        std::string_view line = table.substr(
            start, line_end == std::string_view::npos ? std::string_view::npos : line_end - start);
        field_at(line, 0, &field);
        // The level is a short integer; copy it out so that strtol stops at the field's end.
        std::string level_text(field);
        if (std::strtol(level_text.c_str(), nullptr, 10) != power_level)
            continue;
        if (!field_at(line, column_index, &field))
            return -1.0;
        return std::strtod(std::string(field).c_str(), nullptr);
    }
    return -1.0;
}

}  // namespace default_cal
