#include <gtest/gtest.h>

#include <cstring>

#include "capture_output.h"
#include "orca-common.h"

namespace {

// `records` records of `size` bytes, each starting with the magic number except those
// listed in `bad`, which carry `bad_magic`.
std::vector<char> batch(int records, int size, std::vector<int> bad = {}, uint32_t bad_magic = 7) {
    std::vector<char> data(static_cast<size_t>(records) * size, '\x5A');
    for (int i = 0; i < records; ++i) {
        uint32_t magic = ORCA_MAGIC_NUMBER;
        for (int b : bad)
            magic = b == i ? bad_magic : magic;
        std::memcpy(data.data() + i * size, &magic, 4);
    }
    return data;
}

using Validator = void* (*)(char*, int, int*);

struct Kind {
    Validator validate;
    int size;
    std::string name;
};

#define AS_VALIDATOR(function) \
    [](char* data, int bytes, int* count) -> void* { return function(data, bytes, count); }

const Kind kKinds[] = {
    {AS_VALIDATOR(validate_ext_fc_status_pipe_data), 8, "external_fc_status_t"},
    {AS_VALIDATOR(pipe_validate_ndc_coords_data), 24, "ndc_coords_t"},
    {AS_VALIDATOR(orca_modem_doodle_validate_pipe_data), 32, "Doodle stats"},
    {AS_VALIDATOR(pipe_validate_bbox_data), 92, "Tflite"},
};

TEST(PipeValidators, AcceptWholeBatchesOfGoodRecords) {
    for (const Kind& kind : kKinds) {
        std::vector<char> data = batch(3, kind.size);
        int count = -5;
        EXPECT_EQ(kind.validate(data.data(), static_cast<int>(data.size()), &count), data.data());
        EXPECT_EQ(count, 3) << kind.name;
        EXPECT_EQ(kind.validate(data.data(), 0, &count), data.data());
        EXPECT_EQ(count, 0) << kind.name;
    }
}

TEST(PipeValidators, RefuseBrokenBatchesWithTheirReason) {
    for (const Kind& kind : kKinds) {
        const std::string prefix =
            "ERROR validating " + kind.name + " data received through pipe: ";
        std::vector<char> data = batch(3, kind.size, {0, 2}, 0x01020304);
        int count = -5;
        Printed printed = capture_output([&] {
            EXPECT_EQ(kind.validate(data.data(), static_cast<int>(data.size()), &count), nullptr);
            EXPECT_EQ(count, 0);
            EXPECT_EQ(kind.validate(data.data(), kind.size + 1, &count), nullptr);
            EXPECT_EQ(kind.validate(data.data(), -1, &count), nullptr);
            EXPECT_EQ(kind.validate(nullptr, kind.size, &count), nullptr);
        });
        EXPECT_EQ(printed.err,
                  "ERROR got magic number 16909060, expected 1330791233\n"
                  "ERROR got magic number 16909060, expected 1330791233\n" +
                      prefix + "2 of 3 packets failed\n" + prefix + "read partial packet\n" +
                      "read " + std::to_string(kind.size + 1) + " bytes, but it should be a " +
                      "multiple of " + std::to_string(kind.size) + "\n" + prefix +
                      "number of bytes = -1\n" + prefix + "got NULL data pointer\n");
    }
}

TEST(PipeValidators, NdcCoordsWorkedCases) {
    std::vector<char> data = batch(2, 24, {1}, 0x4F524342);
    int count = 0;
    Printed printed = capture_output([&] {
        EXPECT_EQ(pipe_validate_ndc_coords_data(data.data(), 48, &count), nullptr);
        EXPECT_EQ(pipe_validate_ndc_coords_data(data.data(), 25, &count), nullptr);
    });
    EXPECT_EQ(printed.err,
              "ERROR got magic number 1330791234, expected 1330791233\n"
              "ERROR validating ndc_coords_t data received through pipe: 1 of 2 packets failed\n"
              "ERROR validating ndc_coords_t data received through pipe: read partial packet\n"
              "read 25 bytes, but it should be a multiple of 24\n");
}

}  // namespace
