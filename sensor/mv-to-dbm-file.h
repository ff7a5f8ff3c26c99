// Sensor-internal pieces of the mV-to-dBm conversion that take a file path, so that the
// conversion can be driven and tested on any file, not only the vehicle's fixed paths.
#pragma once

#include <cstddef>

// Writes "/data/quillon/vtx/<tag>_mv_to_dbm.csv" for a band string into `path`; the tag is
// the first 9 characters of the band with every "." replaced by "_".
void format_conversion_path(const char* band, char* path, size_t path_size);

// The uncached lookup of read_csv_data, run over the file at `path`: no MCS check (a
// negative MCS reads the mV column as dBm), no row limit, rows lacking the column skipped.
int read_csv_data_from_file(const char* path, double* mv_out, double* dbm_out, int mcs, double mv);
