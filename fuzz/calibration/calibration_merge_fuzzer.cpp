// Merges a calibration run into arbitrary existing file contents: whatever the file holds,
// reading and merging must neither crash nor read or write out of bounds. The first input
// byte chooses the run's MCS and which levels it measured or stopped at.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "calibration-file.h"
#include "quiet_output.h"

// The merge reports each column it replaces on stdout.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    orca_fuzz_quiet(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    const uint8_t choice = data[0];
    CalibrationResult result = {};
    for (int level = 1; level <= kCalibrationLevels; ++level) {
        result.measured[level] = (level + choice) % 3 != 0;
        result.mV[level] = 100.0 + level * 12.5;
        result.mW[level] = level * 1.25;
    }
    if (choice & 0x80) {
        const int stop = 1 + choice % kCalibrationLevels;
        result.mV[stop] = kTempStopMarkerMv;
        result.mW[stop] = 75.0 + choice / 10.0;
    }

    // fmemopen refuses an empty buffer: an empty file reads as a single NUL then.
    std::vector<char> text(data + 1, data + size);
    if (text.empty())
        text.push_back('\0');
    FILE* in = fmemopen(text.data(), text.size(), "r");
    if (in == nullptr)
        return 0;
    ExistingCalibration existing = {};
    const int read = read_existing_calibration(in, &existing);
    fclose(in);

    char* merged = nullptr;
    size_t merged_size = 0;
    FILE* out = open_memstream(&merged, &merged_size);
    if (out != nullptr) {
        write_calibration(out, choice % 12, &result, read == 0 ? &existing : nullptr);
        fclose(out);
    }
    free(merged);
    free_existing_calibration(&existing);
    return 0;
}
