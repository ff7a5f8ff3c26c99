#include "pipe-records.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "orca-common.h"

namespace orca_pipe_records {

char* validate(char* data, int bytes, int* count, int record_size, const char* name) {
    int ignored_count = 0;
    if (count == nullptr)
        count = &ignored_count;
    *count = 0;
    if (bytes < 0) {
        std::fprintf(stderr,
                     "ERROR validating %s data received through pipe: number of bytes = %d\n", name,
                     bytes);
        return nullptr;
    }
    if (data == nullptr) {
        std::fprintf(stderr,
                     "ERROR validating %s data received through pipe: got NULL data pointer\n",
                     name);
        return nullptr;
    }
    if (bytes % record_size != 0) {
        std::fprintf(stderr,
                     "ERROR validating %s data received through pipe: read partial packet\n", name);
        std::fprintf(stderr, "read %d bytes, but it should be a multiple of %d\n", bytes,
                     record_size);
        return nullptr;
    }
    const int total = bytes / record_size;
    int failed = 0;
    for (int i = 0; i < total; ++i) {
        // Records are packed and may sit at any alignment in the read buffer.
        uint32_t magic;
        std::memcpy(&magic, data + static_cast<size_t>(i) * record_size, sizeof magic);
        if (magic != ORCA_MAGIC_NUMBER) {
            std::fprintf(stderr, "ERROR got magic number %d, expected %d\n",
                         static_cast<int>(magic), static_cast<int>(ORCA_MAGIC_NUMBER));
            ++failed;
        }
    }
    if (failed > 0) {
        std::fprintf(stderr,
                     "ERROR validating %s data received through pipe: %d of %d packets failed\n",
                     name, failed, total);
        return nullptr;
    }
    *count = total;
    return data;
}

}  // namespace orca_pipe_records
