// The cell-level reading of the per-band calibration files, shared by the service's table
// loader and the calibration checks so that both read the text the same way. Not installed.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace orca_calibration_csv {

// Cells split the way the files are written: no quoting, no trimming. A trailing comma
// gives no empty last cell and an empty line gives no cell at all.
std::vector<std::string> split_cells(const std::string& line);

// Leading blanks, an optional sign and the leading digits. Returns false without digits or
// when the value does not fit in 32 bits; `value` is set only on success.
bool parse_int32(const std::string& text, int* value);

struct McsColumn {
    int mcs;
    size_t column;
};

// Header columns named MCS<n> followed by `unit` ("_mV" or "_mW"), in header order: the name
// begins with "MCS", contains `unit`, and has an underscore at or after position 3 ending
// the number. A name whose number does not read is skipped; with `report_bad_names` it is
// reported on standard error as "Error extracting MCS index from column name: <name>".
std::vector<McsColumn> find_mcs_columns(const std::string& header, const char* unit,
                                        bool report_bad_names);

}  // namespace orca_calibration_csv
