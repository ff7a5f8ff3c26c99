#include <gtest/gtest.h>

#include <cstring>

#include "capture_output.h"
#include "orca-common.h"

namespace {

#define AS_VALIDATOR(function) \
    [](char* data, int bytes, int* count) -> void* { return function(data, bytes, count); }

struct Kind {
    void* (*validate)(char*, int, int*);
    int size;
    std::string name;
};

const Kind kKinds[] = {
    {AS_VALIDATOR(validate_ext_fc_status_pipe_data), 8, "external_fc_status_t"},
    {AS_VALIDATOR(pipe_validate_ndc_coords_data), 24, "ndc_coords_t"},
    {AS_VALIDATOR(orca_modem_doodle_validate_pipe_data), 32, "Doodle stats"},
    {AS_VALIDATOR(pipe_validate_bbox_data), 92, "Tflite"},
};

// Three records; the magic numbers of `bad` records are off by one.
std::vector<char> batch(int size, std::vector<int> bad) {
    std::vector<char> data(3 * size, '\x5A');
    for (int i = 0; i < 3; ++i) {
        uint32_t magic = ORCA_MAGIC_NUMBER + std::count(bad.begin(), bad.end(), i);
        std::memcpy(data.data() + i * size, &magic, 4);
    }
    return data;
}

TEST(PipeValidators, AcceptWholeBatchesOfGoodRecords) {
    for (const Kind& kind : kKinds) {
        std::vector<char> data = batch(kind.size, {});
        int count = -5;
        EXPECT_EQ(kind.validate(data.data(), 3 * kind.size, &count), data.data());
        EXPECT_EQ(count, 3) << kind.name;
        EXPECT_EQ(kind.validate(data.data(), 0, &count), data.data());
        EXPECT_EQ(count, 0) << kind.name;
    }
}

TEST(PipeValidators, RefuseBrokenBatchesWithTheirReason) {
    for (const Kind& kind : kKinds) {
        const std::string prefix =
            "ERROR validating " + kind.name + " data received through pipe: ";
        std::vector<char> data = batch(kind.size, {0, 2});
        int count = -5;
        Printed printed = capture_output([&] {
            EXPECT_EQ(kind.validate(data.data(), 3 * kind.size, &count), nullptr);
            EXPECT_EQ(count, 0);
            EXPECT_EQ(kind.validate(data.data(), 2 * kind.size, &count), nullptr);
            EXPECT_EQ(kind.validate(data.data(), kind.size + 1, &count), nullptr);
            EXPECT_EQ(kind.validate(data.data(), -1, &count), nullptr);
            EXPECT_EQ(kind.validate(nullptr, kind.size, &count), nullptr);
        });
        const std::string bad = "ERROR got magic number 1330791234, expected 1330791233\n";
        EXPECT_EQ(printed.err, bad + bad + prefix + "2 of 3 packets failed\n" + bad + prefix +
                                   "1 of 2 packets failed\n" + prefix + "read partial packet\n" +
                                   "read " + std::to_string(kind.size + 1) +
                                   " bytes, but it should be a multiple of " +
                                   std::to_string(kind.size) + "\n" + prefix +
                                   "number of bytes = -1\n" + prefix + "got NULL data pointer\n");
    }
}

}  // namespace
