// Feeds arbitrary file contents through the conversion-table loader and both lookups.
#include "i2c-monitor.h"
#include "mv-to-dbm-file.h"
#include "quiet_output.h"

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <unistd.h>

namespace {

// One scratch file per fuzzing process, rewritten for every input and removed at exit.
char g_scratch_path[] = "/tmp/fuzz_conversion_table_XXXXXX";

bool write_input(const uint8_t* data, size_t size) {
    FILE* file = std::fopen(g_scratch_path, "wb");
    if (file == nullptr)
        return false;
    const bool written = std::fwrite(data, 1, size, file) == size;
    return std::fclose(file) == 0 && written;
}

const double kVoltages[] = {-INFINITY, -1e300, -1.0, 0.0,   0.5,      100.0,
                            150.0,     999.9,  1e6,  1e300, INFINITY, NAN};

}  // namespace

// The loader reports every damaged file on stderr.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    orca_fuzz_quiet(argc, argv);
    const int fd = mkstemp(g_scratch_path);
    if (fd < 0) {
        std::perror("mkstemp");
        std::abort();
    }
    close(fd);
    std::atexit([] { unlink(g_scratch_path); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (!write_input(data, size))
        return 0;

    init_csv_cache_manager();
    CsvBandCache* cache = get_csv_cache_for_freq("2.4");
    if (load_csv_cache(cache, g_scratch_path) == 0) {
        if (cache->row_count < 0 || cache->row_count > 1000)
            std::abort();
        for (double mv : kVoltages) {
            for (int mcs = 0; mcs <= 7; ++mcs) {
                double mv_out = 0, dbm_out = 0;
                // A loaded band always answers, and hands the voltage back unchanged.
                if (read_csv_data_cached(&mv_out, &dbm_out, mcs, "2.4", mv) != 0)
                    std::abort();
                if (mv_out != mv && !(std::isnan(mv_out) && std::isnan(mv)))
                    std::abort();
            }
        }
    }

    for (double mv : {0.0, 150.0, 1e6, static_cast<double>(NAN)}) {
        for (int mcs : {INT_MIN, -1, 0, 3, 7, 8, 20, INT_MAX}) {
            double mv_out = 0, dbm_out = 0;
            read_csv_data_from_file(g_scratch_path, &mv_out, &dbm_out, mcs, mv);
        }
    }
    return 0;
}
