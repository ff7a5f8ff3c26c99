// mV-to-dBm conversion: the per-band CSV tables, their in-memory caches, the lookup that
// maps a detector voltage to output power, and the power of ten used for dBm to mW.
#include "i2c-monitor.h"
#include "mv-to-dbm-file.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

// Static storage: zeroed at start, never freed, so a lookup never allocates.
CsvCacheManager g_csv_cache_manager;

namespace {

constexpr int kMaxCachedRows = 1000;
constexpr int kColumns = 9;  // mV, then dBm at MCS 0..7
constexpr int kMaxMcs = 7;
constexpr size_t kLineSize = 1024;
constexpr size_t kPathSize = 256;
constexpr size_t kBandSize = 10;

const char* const kBands[3] = {"2.4", "5.1", "5.8"};

// Walks the comma-separated fields of one line piece as strtok(line, ",") would: runs of
// commas count as one separator, and the newline stays part of the last field (the number
// parser stops before it). Fields point into the piece; nothing is copied or modified.
class FieldReader {
  public:
    explicit FieldReader(const char* line) : pos_(line) {}

    // The next field, or null when the piece holds no more.
    const char* next() {
        while (*pos_ == ',')
            ++pos_;
        if (*pos_ == '\0')
            return nullptr;
        const char* field = pos_;
        while (*pos_ != '\0' && *pos_ != ',')
            ++pos_;
        return field;
    }

  private:
    const char* pos_;
};

// Leading-number rule: text that does not start with a number reads as 0. strtod stops at
// the field's comma or newline by itself.
double parse_number(const char* field) {
    return std::strtod(field, nullptr);
}

// The nearest-row scan shared by the cached and the uncached lookups. Every comparison is
// strict, so ties keep the earlier choice.
class NearestDbmScan {
  public:
    explicit NearestDbmScan(double x) : x_(x) {}

    void add_row(double v, double d) {
        const double p = prev_mv_;
        if (std::isfinite(p) && p <= x_ && x_ <= v) {
            const double to_mid = std::fabs(x_ - (v + p) / 2);
            if (to_mid < std::fabs(x_ - v) && to_mid < std::fabs(x_ - p)) {
                // The middle half of a bracket reads as the mean of its two rows, rounded
                // to the nearest 0.5 dB; it overrides a closer earlier row on purpose.
                best_dbm_ = std::round(prev_dbm_ + d) / 2;
                best_distance_ = to_mid;
            } else {
                double distance = best_distance_;
                double dbm = best_dbm_;
                if (std::fabs(v - x_) < distance) {
                    distance = std::fabs(v - x_);
                    dbm = d;
                }
                if (distance > std::fabs(p - x_)) {
                    distance = std::fabs(p - x_);
                    dbm = prev_dbm_;
                }
                best_distance_ = distance;
                best_dbm_ = dbm;
            }
        } else if (std::fabs(v - x_) < best_distance_) {
            best_dbm_ = d;
            best_distance_ = std::fabs(v - x_);
        }
        prev_mv_ = v;
        prev_dbm_ = d;
    }

    double result() const { return best_dbm_; }

  private:
    double x_;
    double prev_mv_ = -std::numeric_limits<double>::infinity();
    double prev_dbm_ = 0.0;
    double best_dbm_ = 0.0;
    double best_distance_ = std::numeric_limits<double>::infinity();
};

// A line of nothing but commas (its line end aside) holds no row. An empty line is not such a
// line: it reads as a row of 0 mV.
bool is_only_commas(const char* line) {
    if (*line != ',')
        return false;
    while (*line == ',')
        ++line;
    return *line == '\0' || (line[0] == '\n' && line[1] == '\0');
}

int band_index(const char* band) {
    if (band == nullptr)
        return -1;
    for (int i = 0; i < 3; ++i) {
        if (std::strcmp(band, kBands[i]) == 0)
            return i;
    }
    return -1;
}

const char* printable(const char* text) {
    return text != nullptr ? text : "(null)";
}

}  // namespace

void format_conversion_path(const char* band, char* path, size_t path_size) {
    char tag[kBandSize];
    std::snprintf(tag, sizeof tag, "%s", printable(band));
    for (char* c = tag; *c != '\0'; ++c) {
        if (*c == '.')
            *c = '_';
    }
    std::snprintf(path, path_size, "/data/quillon/vtx/%s_mv_to_dbm.csv", tag);
}

void init_csv_cache_manager() {
    for (CsvBandCache& cache : g_csv_cache_manager.caches) {
        cache.row_count = 0;
        cache.loaded = false;
    }
}

CsvBandCache* get_csv_cache_for_freq(const char* band) {
    const int index = band_index(band);
    return index < 0 ? nullptr : &g_csv_cache_manager.caches[index];
}

int load_csv_cache(CsvBandCache* cache, const char* path) {
    if (cache == nullptr || path == nullptr) {
        std::fprintf(stderr, "Error: no conversion table cache or path to load\n");
        return -1;
    }
    if (cache->loaded)
        return 0;

    FILE* file = std::fopen(path, "r");
    if (file == nullptr) {
        std::perror("Error opening csv dbm conversion file");
        return -1;
    }
    char line[kLineSize];
    if (std::fgets(line, sizeof line, file) == nullptr) {
        // The backslash-n is printed as two characters, as the operators' logs expect.
        std::fprintf(stderr, "Error reading CSV header\\n");
        std::fclose(file);
        return -1;
    }

    cache->row_count = 0;
    while (cache->row_count < kMaxCachedRows && std::fgets(line, sizeof line, file) != nullptr) {
        if (is_only_commas(line))
            continue;
        FieldReader fields(line);
        const char* field = fields.next();
        if (field == nullptr)
            continue;
        double* row = cache->rows[cache->row_count];
        row[0] = parse_number(field);
        for (int column = 1; column < kColumns; ++column) {
            field = fields.next();
            row[column] = field != nullptr ? parse_number(field) : 0.0;
        }
        ++cache->row_count;
    }
    std::fclose(file);
    cache->loaded = true;
    return 0;
}

int read_csv_data_cached(double* mv_out, double* dbm_out, int mcs, const char* band, double mv) {
    if (mcs < 0 || mcs > kMaxMcs) {
        std::fprintf(stderr, "Invalid MCS value: %d. Must be 0-%d\\n", mcs, kMaxMcs);
        return -1;
    }
    CsvBandCache* cache = get_csv_cache_for_freq(band);
    if (cache == nullptr) {
        std::fprintf(stderr, "Invalid frequency: %s\\n", printable(band));
        return -1;
    }
    if (mv_out == nullptr || dbm_out == nullptr)
        return -1;
    if (!cache->loaded) {
        char path[kPathSize];
        format_conversion_path(band, path, sizeof path);
        if (load_csv_cache(cache, path) != 0)
            return -1;  // tried again on the next lookup
    }

    NearestDbmScan scan(mv);
    const int column = 1 + mcs;
    for (int i = 0; i < cache->row_count; ++i)
        scan.add_row(cache->rows[i][0], cache->rows[i][column]);
    *mv_out = mv;
    *dbm_out = scan.result();
    return 0;
}

int read_csv_data_from_file(const char* path, double* mv_out, double* dbm_out, int mcs, double mv) {
    if (path == nullptr || mv_out == nullptr || dbm_out == nullptr)
        return -1;
    FILE* file = std::fopen(path, "r");
    if (file == nullptr) {
        std::perror("Error opening csv dbm conversion file");
        return -1;
    }
    char line[kLineSize];
    if (std::fgets(line, sizeof line, file) == nullptr) {
        std::fprintf(stderr, "Error reading CSV header\n");
        std::fclose(file);
        return -1;
    }

    // A negative MCS reads the mV column itself. Kept wide so that a huge MCS cannot
    // overflow; such a column is simply never present.
    const long long column = mcs < 0 ? 0 : 1LL + mcs;
    NearestDbmScan scan(mv);
    while (std::fgets(line, sizeof line, file) != nullptr) {
        if (is_only_commas(line))
            continue;
        FieldReader fields(line);
        const char* field = fields.next();
        if (field == nullptr)
            continue;
        const double row_mv = parse_number(field);
        for (long long i = 0; i < column && field != nullptr; ++i)
            field = fields.next();
        if (field == nullptr)
            continue;  // lacks the column: not even the previous row for the next bracket
        scan.add_row(row_mv, column == 0 ? row_mv : parse_number(field));
    }
    std::fclose(file);
    *mv_out = mv;
    *dbm_out = scan.result();
    return 0;
}

int read_csv_data(double* mv_out, double* dbm_out, int mcs, const char* band, double mv) {
    if (band == nullptr) {
        std::fprintf(stderr, "Invalid frequency: (null)\\n");
        return -1;
    }
    char path[kPathSize];
    format_conversion_path(band, path, sizeof path);
    return read_csv_data_from_file(path, mv_out, dbm_out, mcs, mv);
}

const char* custom_strcasestr(const char* text, const char* pattern) {
    if (text == nullptr || pattern == nullptr)
        return nullptr;
    if (*pattern == '\0')
        return text;
    for (; *text != '\0'; ++text) {
        size_t i = 0;
        while (pattern[i] != '\0' && text[i] != '\0' &&
               std::tolower(static_cast<unsigned char>(text[i])) ==
                   std::tolower(static_cast<unsigned char>(pattern[i])))
            ++i;
        if (pattern[i] == '\0')
            return text;
    }
    return nullptr;
}

double custom_exp10(double x) {
    if (x >= 0.0 && x <= 20.0 && x == std::floor(x)) {
        // Whole powers up to 1e20 are exact as repeated products.
        double product = 1.0;
        for (int i = 0; i < static_cast<int>(x); ++i)
            product *= 10.0;
        return product;
    }
    // Taylor series of e^y through y^15/15!, summed in this exact order: the milliwatt
    // figures that calibration prints depend on it to the last bit.
    const double y = x * 2.30258509299;
    double term = y;
    double sum = 1.0 + y;
    for (int k = 2; k <= 14; ++k) {
        term = term * y / k;
        sum += term;
    }
    return std::fma(y / 15, term, sum);
}
