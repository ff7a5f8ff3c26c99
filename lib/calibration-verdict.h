// Whether a board's calibration is sound, legal and unchanged: the checks behind
// orca-vtx-calreport, and the regional power limits that the transmitter service can use to
// cap its power index the same way. Nothing here prints or throws; every function is
// defined for every argument and reports failure through its result.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// The library is built with hidden visibility: what this header declares is its API.
#pragma GCC visibility push(default)

namespace orca_verdict {

enum class Band : int { b2_4 = 0, b5_1 = 1, b5_8 = 2 };
enum class Region : int { none = 0, fcc = 1, etsi = 2 };
enum class Severity : int { pass = 0, warn = 1, fail = 2 };

constexpr int kFileLevels = 63;    // rows 1 to 63 of a calibration file
constexpr int kJudgedLevels = 60;  // the power indices the radio accepts

// Names: "2.4", "5.1", "5.8"; file tags "2_4", "5_1", "5_8"; "none", "fcc", "etsi";
// "pass", "warn", "fail". Each returns "?" for a value outside its enumeration.
const char* band_name(Band band);
const char* band_tag(Band band);
const char* region_name(Region region);
const char* severity_name(Severity severity);
// Returns 0 and sets *region for "none", "fcc" or "etsi"; -1 for anything else (null too).
int region_from_name(const char* name, Region* region);

// One level of one MCS column. A level has a value when both cells hold plain
// non-negative numbers and the mW is above zero; "-1", "NA", an absent row and any other
// text leave it without one. A TEMP_ERROR cell marks a temperature stop instead.
struct LevelCells {
    bool has_value = false;
    bool temperature_stop = false;
    double mv = 0.0;
    double mw = 0.0;
};

// The mV/mW column pair of one MCS; index 0 of `levels` is unused.
struct CalibrationColumn {
    int mcs = 0;
    LevelCells levels[kFileLevels + 1];
};

struct CalibrationFile {
    Band band = Band::b2_4;
    std::vector<CalibrationColumn> columns;  // in header order
};

// Reads the text of a calibration file: a header whose first field is "Power_Level" and
// that names at least one MCS<n>_mV/MCS<n>_mW pair, then one row per level. Rows of other
// levels and extra cells are ignored; of two rows for one level the later counts. Returns
// 0 and fills `file`, or -1 with `error` saying why the text is no calibration file.
int parse_calibration_text(std::string_view text, Band band, CalibrationFile& file,
                           std::string& error);
// The same for the file at `path` (at most 4 MiB). Returns 0, or -1 with `error` set.
int read_calibration_file(const std::string& path, Band band, CalibrationFile& file,
                          std::string& error);
// Reads calibrated_2_4.csv, calibrated_5_1.csv and calibrated_5_8.csv where present in
// `dir`, in that order, into `files` (replaced). Returns how many were read (0 when none
// is there), or -1 with `error` set when `dir` is no readable directory or a present file
// cannot be used.
int read_calibration_dir(const std::string& dir, std::vector<CalibrationFile>& files,
                         std::string& error);

// The embedded default curve for a band and MCS: the default table's column of the highest
// of MCS 0, 1 and 3 that is not above `mcs`. Returns 0 and fills `column` (its mcs is the
// table's), or -1 when `mcs` is negative or the band unknown.
int default_curve(Band band, int mcs, CalibrationColumn& column);

// Output in dBm of a level with a value: 10·log10 of its mW.
double level_dbm(const LevelCells& level);

// The knee: the lowest level whose output is within 0.5 dB of the output at level 60.
// Returns the level, or -1 when level 60 has no value.
int knee_index(const CalibrationColumn& column);

// Highest allowed output at the detector, in dBm, for a band in a region with the given
// antenna gain and cable loss (EIRP = detector output - cable loss + antenna gain).
// Returns 0 and sets *limit_dbm; 1 when the region sets no limit (none); -1 when an
// argument is out of its enumeration or not finite, when the cable loss is negative, or
// when `limit_dbm` is null.
int detector_limit_dbm(Band band, Region region, double antenna_gain_dbi, double cable_loss_db,
                       double* limit_dbm);

// The highest level L such that every level from 1 to L has a value within `limit_dbm`;
// -1 when level 1 is not (or the limit is not a number). A level without a value ends the
// walk: an index whose output is unknown is never called legal.
int max_legal_index(const CalibrationColumn& column, double limit_dbm);

struct Finding {
    std::string code;  // "missing-levels", "temperature-stop", "not-monotonic", ...
    Severity severity = Severity::warn;
    std::string message;
};

struct ColumnVerdict {
    Band band = Band::b2_4;
    CalibrationColumn column;
    bool has_default = false;
    CalibrationColumn default_column;  // the curve it was compared with, when has_default
    Severity verdict = Severity::pass;
    bool has_max = false;  // false when no judged level has a value
    double max_dbm = 0.0;
    int knee_index = -1;  // -1: none
    bool has_limit = false;
    double limit_dbm = 0.0;
    int max_legal_index = -1;  // -1: none
    std::vector<Finding> findings;
};

struct VerdictOptions {
    Region region = Region::none;
    double antenna_gain_dbi = 0.0;
    double cable_loss_db = 0.0;
};

struct Verdict {
    Severity verdict = Severity::pass;
    VerdictOptions options;
    std::vector<ColumnVerdict> columns;
};

// Judges every column of every file on its own, levels 1 to 60, and compares each with the
// same band and MCS of `previous` when that is not null. Returns 0 and fills `verdict`, or
// -1 (verdict untouched) when the options are invalid (see detector_limit_dbm).
int judge_calibration(const std::vector<CalibrationFile>& files, const VerdictOptions& options,
                      const std::vector<CalibrationFile>* previous, Verdict& verdict);

}  // namespace orca_verdict

#pragma GCC visibility pop
