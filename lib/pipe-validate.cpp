// Validators of the records that arrive over the other pipe-bus streams. A batch is
// accepted or refused as a whole: a read that split a record cannot be resynchronised.
#include <cstdio>
#include <cstring>

#include "orca-common.h"

namespace {

char* validate_records(char* data, int bytes, int* count, int record_size, const char* name) {
    // A caller that does not want the count still gets the validation.
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
        // Records sit at any alignment in the read buffer.
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

template <typename Record>
Record* validate_as(char* data, int bytes, int* count, const char* name) {
    return reinterpret_cast<Record*>(
        validate_records(data, bytes, count, static_cast<int>(sizeof(Record)), name));
}

}  // namespace

external_fc_status_t* validate_ext_fc_status_pipe_data(char* data, int bytes, int* count) {
    return validate_as<external_fc_status_t>(data, bytes, count, "external_fc_status_t");
}

ndc_coords_t* pipe_validate_ndc_coords_data(char* data, int bytes, int* count) {
    return validate_as<ndc_coords_t>(data, bytes, count, "ndc_coords_t");
}

orca_modem_doodle_stats_t* orca_modem_doodle_validate_pipe_data(char* data, int bytes, int* count) {
    return validate_as<orca_modem_doodle_stats_t>(data, bytes, count, "Doodle stats");
}

orca_bbox_t* pipe_validate_bbox_data(char* data, int bytes, int* count) {
    return validate_as<orca_bbox_t>(data, bytes, count, "Tflite");
}
