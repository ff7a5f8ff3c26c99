// The per-band calibration file: "Power_Level" followed by one mV/mW column pair per MCS,
// one row per power level 1 to 63. A run reads the existing file before it measures and
// merges its own pair into it afterwards, leaving the other MCS columns alone.
#pragma once

#include <cstddef>
#include <cstdio>

constexpr int kCalibrationLevels = 63;         // rows 1 to 63; row 0 is never written
constexpr double kTempStopMarkerMv = -9999.0;  // mV of the level where a temperature stop hit
constexpr size_t kCalibrationLineSize = 1024;  // file lines and the header, newline included

// What one run measured (or estimated), by power level; index 0 is unused. At a temperature
// stop mV holds kTempStopMarkerMv and mW the temperature in °C.
struct CalibrationResult {
    bool measured[kCalibrationLevels + 1];
    double mV[kCalibrationLevels + 1];
    double mW[kCalibrationLevels + 1];
};

// The existing file as held between the start and the end of a run.
struct ExistingCalibration {
    bool found;                         // false: no file, a new one is written
    char header[kCalibrationLineSize];  // first line, newline kept
    char** rows;                        // the other lines, one trailing newline removed
    int row_count;
};

// Band tag ("2_4", "5_1", "5_8") of a frequency in MHz, or nullptr outside the three bands.
const char* calibration_band_tag(int frequency_mhz);
// "/data/quillon/vtx/calibrated_<tag>.csv"; -1 for a frequency outside the bands.
int format_calibration_path(int frequency_mhz, char* path, size_t size);

// Reads an open file into `existing` (found set). Returns 0, or -1 after a message with
// nothing held.
int read_existing_calibration(FILE* file, ExistingCalibration* existing);
// Reads the file at `path`; a file that cannot be opened counts as absent (found false, 0).
int load_existing_calibration(const char* path, ExistingCalibration* existing);
void free_existing_calibration(ExistingCalibration* existing);

// Writes the run's columns for `mcs`: a new file when nothing was found, else the merge
// into the existing header and rows. Returns 0, or -1 after a message.
int write_calibration(FILE* out, int mcs, const CalibrationResult* result,
                      const ExistingCalibration* existing);
// Rewrites the file at `path` in place and reports where the data went.
int save_calibration_file(const char* path, int mcs, const CalibrationResult* result,
                          const ExistingCalibration* existing);
