// Pipe reads deliver any number of bytes: a validator accepts a batch exactly when it is
// whole records that all carry the magic number, and then counts them right.
#include <cstdint>
#include <cstring>
#include <vector>

#include "orca-common.h"

namespace {

template <typename Record>
void check(Record* (*validate)(char*, int, int*), const uint8_t* data, size_t size) {
    std::vector<char> buffer(data, data + size);
    constexpr size_t kSize = sizeof(Record);
    bool whole = size % kSize == 0;
    for (size_t offset = 0; whole && offset < size; offset += kSize) {
        uint32_t magic;
        std::memcpy(&magic, buffer.data() + offset, sizeof magic);
        whole = magic == ORCA_MAGIC_NUMBER;
    }
    int count = -1;
    Record* records = validate(buffer.data(), static_cast<int>(size), &count);
    const bool accepted = records == reinterpret_cast<Record*>(buffer.data());
    if (accepted != whole || (records != nullptr && !accepted))
        __builtin_trap();
    if (count != (accepted ? static_cast<int>(size / kSize) : 0))
        __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    check(validate_ext_fc_status_pipe_data, data, size);
    check(pipe_validate_ndc_coords_data, data, size);
    check(orca_modem_doodle_validate_pipe_data, data, size);
    check(pipe_validate_bbox_data, data, size);
    return 0;
}
