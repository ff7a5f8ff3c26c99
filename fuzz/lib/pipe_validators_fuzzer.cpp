// Pipe reads deliver any number of bytes: a validator accepts a batch exactly when it is
// whole records that all carry the magic number, and then counts them right.
#include <cstdint>
#include <cstring>
#include <vector>

#include <orca-vtx/orca-common.h>

#include "quiet_output.h"

// Every rejected batch is reported on stderr.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    orca_fuzz_quiet(argc, argv);
    return 0;
}

template <typename Record>
static void check(Record* (*validate)(char*, int, int*), const uint8_t* data, size_t size) {
    std::vector<char> buffer(data, data + size);
    bool whole = size % sizeof(Record) == 0;
    for (size_t offset = 0; whole && offset < size; offset += sizeof(Record))
        whole = std::memcmp(&ORCA_MAGIC_NUMBER, data + offset, 4) == 0;
    int count = -1;
    Record* records = validate(buffer.data(), static_cast<int>(size), &count);
    // An empty read may come with a null buffer; it is still no partial record.
    const bool accepted = records == reinterpret_cast<Record*>(buffer.data());
    if (accepted != whole || (records != nullptr && !accepted) ||
        count != (accepted ? static_cast<int>(size / sizeof(Record)) : 0))
        __builtin_trap();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    check(validate_ext_fc_status_pipe_data, data, size);
    check(pipe_validate_ndc_coords_data, data, size);
    check(orca_modem_doodle_validate_pipe_data, data, size);
    check(pipe_validate_bbox_data, data, size);
    return 0;
}
