// Validation of a batch of vtx_latency records as the pipe library delivers it.
#include <cstdio>
#include <cstring>

#include "orca-common.h"
#include "orca-vtx-helpers.h"

VtxLatencyRecord* orca_vtx_validate_pipe_data(char* data, int bytes, int* count) {
    constexpr int kRecordSize = static_cast<int>(sizeof(VtxLatencyRecord));
    // A caller that does not want the count still gets the validation.
    int ignored_count = 0;
    if (count == nullptr)
        count = &ignored_count;
    *count = 0;
    if (bytes < 0) {
        fprintf(stderr, "ERROR validating VTX data received through pipe: number of bytes = %d\n",
                bytes);
        return nullptr;
    }
    if (data == nullptr) {
        fprintf(stderr, "ERROR validating VTX data received through pipe: got NULL data pointer\n");
        return nullptr;
    }
    if (bytes % kRecordSize != 0) {
        fprintf(stderr, "ERROR validating VTX data received through pipe: read partial packet\n");
        fprintf(stderr, "read %d bytes, but it should be a multiple of %d\n", bytes, kRecordSize);
        return nullptr;
    }
    const int total = bytes / kRecordSize;
    int failed = 0;
    for (int i = 0; i < total; ++i) {
        // Records are packed and may sit at any alignment in the read buffer.
        uint32_t magic;
        std::memcpy(&magic, data + i * kRecordSize, sizeof(magic));
        if (magic != ORCA_MAGIC_NUMBER) {
            fprintf(stderr, "ERROR got magic number %d, expected %d\n", static_cast<int>(magic),
                    static_cast<int>(ORCA_MAGIC_NUMBER));
            ++failed;
        }
    }
    if (failed > 0) {
        fprintf(stderr,
                "ERROR validating VTX data received through pipe: %d of %d packets failed\n",
                failed, total);
        return nullptr;
    }
    *count = total;
    return reinterpret_cast<VtxLatencyRecord*>(data);
}
