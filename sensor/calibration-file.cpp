// Reading and merging the per-band calibration file. The transmitter service's loader reads
// what is written here, so the text form is exact: "%.2f" values, "-1" for levels a run
// did not calibrate, "NA" for levels that a merge appends, TEMP_ERROR_<whole>_<tenth> where
// a temperature stop hit.
#include "calibration-file.h"
#include "frequency-band.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char* kCalibrationPathFormat = "/data/quillon/vtx/calibrated_%s.csv";
constexpr size_t kColumnNameSize = 20;
constexpr size_t kTempErrorSize = 64;
constexpr int kMaxTokens = kCalibrationLineSize / 2 + 1;  // a 1023-character line of commas

bool is_temp_stop(const CalibrationResult* result, int level) {
    return result->mV[level] == kTempStopMarkerMv;
}

// "TEMP_ERROR_76_3" for 76.37 °C: the whole degrees and the first decimal, both truncated.
void format_temp_error(double temperature_c, char* text, size_t size) {
    if (!(temperature_c > INT_MIN && temperature_c < INT_MAX))
        temperature_c = 0.0;  // the sensor cannot report this; keep the cast defined
    const int whole = static_cast<int>(temperature_c);
    const int tenth = static_cast<int>((temperature_c - whole) * 10);
    snprintf(text, size, "TEMP_ERROR_%d_%d", whole, tenth);
}

// The level a row names: its first non-empty field read as base-10 integer, or -1 when the
// row has no field at all. Text that is not a number reads as level 0.
long row_level(const char* row) {
    while (*row == ',')
        ++row;
    if (*row == '\0')
        return -1;
    const long level = strtol(row, nullptr, 10);
    return level < 0 ? 0 : level;
}

bool is_level(long level) {
    return level >= 1 && level <= kCalibrationLevels;
}

// Splits `text` in place on commas, skipping empty fields as strtok does.
int split_fields(char* text, char* fields[], int capacity) {
    int count = 0;
    char* save = nullptr;
    for (char* field = strtok_r(text, ",", &save); field != nullptr && count < capacity;
         field = strtok_r(nullptr, ",", &save))
        fields[count++] = field;
    return count;
}

void copy_line(char* target, const char* source) {
    snprintf(target, kCalibrationLineSize, "%s", source);
}

// The two cells of a level as the run leaves them, for rows written whole.
void write_level_cells(FILE* out, const CalibrationResult* result, int level,
                       const char* not_calibrated) {
    if (!result->measured[level]) {
        fprintf(out, ",%s,%s\n", not_calibrated, not_calibrated);
    } else if (is_temp_stop(result, level)) {
        char temp_error[kTempErrorSize];
        format_temp_error(result->mW[level], temp_error, sizeof temp_error);
        fprintf(out, ",%s,%s\n", temp_error, temp_error);
    } else {
        fprintf(out, ",%.2f,%.2f\n", result->mV[level], result->mW[level]);
    }
}

void write_new_file(FILE* out, int mcs, const CalibrationResult* result) {
    fprintf(out, "Power_Level,MCS%d_mV,MCS%d_mW\n", mcs, mcs);
    for (int level = 1; level <= kCalibrationLevels; ++level) {
        fprintf(out, "%d", level);
        write_level_cells(out, result, level, "-1");
    }
}

// Update mode: the run's two fields of an existing row change, every other field stays.
void write_updated_row(FILE* out, const char* row, long level, int mv_position, int mw_position,
                       const CalibrationResult* result) {
    char copy[kCalibrationLineSize];
    copy_line(copy, row);
    char* fields[kMaxTokens];
    const int count = split_fields(copy, fields, kMaxTokens);
    const bool measured = is_level(level) && result->measured[level];
    char temp_error[kTempErrorSize] = "";
    if (measured && is_temp_stop(result, level))
        format_temp_error(result->mW[level], temp_error, sizeof temp_error);

    for (int i = 0; i < count; ++i) {
        if (i > 0)
            fputc(',', out);
        const bool run_field = i == mv_position || i == mw_position;
        if (!run_field) {
            fputs(fields[i], out);
        } else if (measured && temp_error[0] != '\0') {
            fputs(temp_error, out);
        } else if (measured) {
            fprintf(out, "%.2f", i == mv_position ? result->mV[level] : result->mW[level]);
        } else if (fields[i][0] == '\0' || strcmp(fields[i], "NA") == 0) {
            fputs("-1", out);
        } else {
            fputs(fields[i], out);
        }
    }
    fputc('\n', out);
}

int merge_into_existing(FILE* out, int mcs, const CalibrationResult* result,
                        const ExistingCalibration* existing) {
    char mv_name[kColumnNameSize];
    char mw_name[kColumnNameSize];
    snprintf(mv_name, sizeof mv_name, "MCS%d_mV", mcs);
    snprintf(mw_name, sizeof mw_name, "MCS%d_mW", mcs);
    const char* header = existing->header;
    const size_t header_length = strlen(header);

    if (strstr(header, "MCS") != nullptr &&
        (strstr(header, mv_name) != nullptr || strstr(header, mw_name) != nullptr)) {
        printf("MCS%d columns already exist in the file, they will be updated\n", mcs);
        fputs(header, out);
        // A header without its newline either ended the file, and must not swallow the rows
        // appended after it, or was longer than the buffer, and the first row, its rest,
        // completes the line again.
        const bool ends_line = header_length > 0 && header[header_length - 1] == '\n';
        if (!ends_line && existing->row_count == 0)
            fputc('\n', out);
    } else {
        char suffix[2 * kColumnNameSize + 2];
        snprintf(suffix, sizeof suffix, ",MCS%d_mV,MCS%d_mW", mcs, mcs);
        // The file is already truncated at this point and stays empty; the service then
        // falls back to its defaults rather than read a header it cannot hold.
        if (header_length + 2 + strlen(suffix) > kCalibrationLineSize) {
            fprintf(stderr, "Header would be too long after adding new columns\n");
            return -1;
        }
        char trimmed[kCalibrationLineSize];
        copy_line(trimmed, header);
        const size_t trimmed_length = strlen(trimmed);
        if (trimmed_length > 0 && trimmed[trimmed_length - 1] == '\n')
            trimmed[trimmed_length - 1] = '\0';
        fprintf(out, "%s%s\n", trimmed, suffix);
    }

    bool present[kCalibrationLevels + 1] = {};
    for (int i = 0; i < existing->row_count; ++i) {
        const long level = row_level(existing->rows[i]);
        if (is_level(level))
            present[level] = true;
    }

    // The run's columns in the header as it was read; the last match wins.
    char header_copy[kCalibrationLineSize];
    copy_line(header_copy, header);
    char* names[kMaxTokens];
    const int header_fields = split_fields(header_copy, names, kMaxTokens);
    int mv_position = -1;
    int mw_position = -1;
    for (int i = 0; i < header_fields; ++i) {
        if (strstr(names[i], mv_name) != nullptr)
            mv_position = i;
        else if (strstr(names[i], mw_name) != nullptr)
            mw_position = i;
    }
    const bool update_mode = mv_position >= 0 && mw_position >= 0;
    const int filler = update_mode ? header_fields - 2 : header_fields;

    for (int i = 0; i < existing->row_count; ++i) {
        const char* row = existing->rows[i];
        const long level = row_level(row);
        if (level < 0) {
            errno = EINVAL;
            perror("Failed to parse power level from data row");
            return -1;
        }
        if (update_mode) {
            write_updated_row(out, row, level, mv_position, mw_position, result);
        } else {
            fputs(row, out);
            write_level_cells(out, result, is_level(level) ? static_cast<int>(level) : 0, "-1");
        }
    }

    // Levels the file lacks go last, the run's values in their last two fields.
    for (int level = 1; level <= kCalibrationLevels; ++level) {
        if (present[level])
            continue;
        fprintf(out, "%d", level);
        for (int i = 1; i < filler; ++i)
            fputc(',', out);
        write_level_cells(out, result, level, "NA");
    }
    return 0;
}

void free_rows(char** rows, int count) {
    for (int i = 0; i < count; ++i)
        free(rows[i]);
    free(rows);
}

}  // namespace

const char* calibration_band_tag(int frequency_mhz) {
    return band_file_tag(frequency_band(frequency_mhz));
}

int format_calibration_path(int frequency_mhz, char* path, size_t size) {
    const char* tag = calibration_band_tag(frequency_mhz);
    if (tag == nullptr)
        return -1;
    snprintf(path, size, kCalibrationPathFormat, tag);
    return 0;
}

int read_existing_calibration(FILE* file, ExistingCalibration* existing) {
    existing->found = true;
    existing->rows = nullptr;
    existing->row_count = 0;
    if (fgets(existing->header, sizeof existing->header, file) == nullptr) {
        perror("Failed to read header from existing calibration file");
        return -1;
    }
    // Counted with the same buffer size as the rows are read: a longer line takes two rows.
    char line[kCalibrationLineSize];
    int count = 0;
    while (count < INT_MAX && fgets(line, sizeof line, file) != nullptr)
        ++count;

    char** rows = static_cast<char**>(calloc(count > 0 ? count : 1, sizeof(char*)));
    if (rows == nullptr) {
        perror("Failed to allocate memory for data rows");
        return -1;
    }
    rewind(file);
    if (fgets(line, sizeof line, file) == nullptr) {
        perror("Failed to skip header");
        free_rows(rows, 0);
        return -1;
    }
    for (int i = 0; i < count; ++i) {
        rows[i] = static_cast<char*>(malloc(kCalibrationLineSize));
        if (rows[i] == nullptr) {
            perror("Failed to allocate memory for data row");
            free_rows(rows, i);
            return -1;
        }
        if (fgets(rows[i], kCalibrationLineSize, file) == nullptr) {
            perror("Failed to read data row");
            free_rows(rows, i + 1);
            return -1;
        }
        const size_t length = strlen(rows[i]);
        if (length > 0 && rows[i][length - 1] == '\n')
            rows[i][length - 1] = '\0';
    }
    existing->rows = rows;
    existing->row_count = count;
    return 0;
}

int load_existing_calibration(const char* path, ExistingCalibration* existing) {
    existing->found = false;
    existing->rows = nullptr;
    existing->row_count = 0;
    existing->header[0] = '\0';
    FILE* file = fopen(path, "r");
    if (file == nullptr)
        return 0;  // no file yet: the run writes a new one
    puts("Existing calibration file found. Reading contents...");
    const int result = read_existing_calibration(file, existing);
    fclose(file);
    return result;
}

void free_existing_calibration(ExistingCalibration* existing) {
    free_rows(existing->rows, existing->row_count);
    existing->rows = nullptr;
    existing->row_count = 0;
}

int write_calibration(FILE* out, int mcs, const CalibrationResult* result,
                      const ExistingCalibration* existing) {
    if (existing == nullptr || !existing->found) {
        write_new_file(out, mcs, result);
        return 0;
    }
    return merge_into_existing(out, mcs, result, existing);
}

int save_calibration_file(const char* path, int mcs, const CalibrationResult* result,
                          const ExistingCalibration* existing) {
    // Rewritten in place: the loader on the aircraft opens this very path.
    FILE* out = fopen(path, "w");
    if (out == nullptr) {
        perror("Failed to open output file for calibration data");
        return -1;
    }
    const int merged = write_calibration(out, mcs, result, existing);
    const bool write_failed = ferror(out) != 0;
    const int saved_errno = errno;
    if (fclose(out) != 0 || write_failed) {
        if (write_failed)
            errno = saved_errno;
        perror("Failed to write calibration data");
        return -1;
    }
    if (merged != 0)
        return -1;
    printf("Calibration complete! Data saved to %s\n", path);
    return 0;
}
