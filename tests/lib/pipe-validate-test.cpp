#include <gtest/gtest.h>

#include <cstring>

#include "capture_output.h"
#include <orca-vtx/orca-common.h>
#include <orca-vtx/orca-vtx-helpers.h>

using orca_test::capture_output;
using orca_test::Printed;

namespace {

// Feeds one validator the two good middle records of four, then the whole four, whose first
// and last magic numbers are off by one, and batches cut in every way.
template <typename Record>
void check(Record* (*validate)(char*, int, int*), int size, const std::string& name) {
    SCOPED_TRACE(name);
    std::vector<char> data(4 * size, '\x5A');
    for (int i = 0; i < 4; ++i) {
        const uint32_t magic = ORCA_MAGIC_NUMBER + (i == 0 || i == 3);
        std::memcpy(data.data() + i * size, &magic, 4);
    }
    int count = -5;
    char* const middle = data.data() + size;
    EXPECT_EQ(validate(middle, 2 * size, &count), reinterpret_cast<Record*>(middle));
    EXPECT_EQ(count, 2);
    EXPECT_EQ(validate(middle, 0, &count), reinterpret_cast<Record*>(middle));
    EXPECT_EQ(count, 0);
    // A caller that does not want the count still gets the verdict.
    EXPECT_EQ(validate(middle, 2 * size, nullptr), reinterpret_cast<Record*>(middle));

    Printed printed = capture_output([&] {
        count = -5;
        EXPECT_EQ(validate(data.data(), 4 * size, &count), nullptr);
        EXPECT_EQ(count, 0);
        EXPECT_EQ(validate(data.data(), size + 1, &count), nullptr);
        EXPECT_EQ(validate(data.data(), -1, &count), nullptr);
        EXPECT_EQ(validate(nullptr, size, &count), nullptr);
    });
    const std::string prefix = "ERROR validating " + name + " data received through pipe: ";
    const std::string bad = "ERROR got magic number 1330791234, expected 1330791233\n";
    EXPECT_EQ(printed.err, bad + bad + prefix + "2 of 4 packets failed\n" + prefix +
                               "read partial packet\nread " + std::to_string(size + 1) +
                               " bytes, but it should be a multiple of " + std::to_string(size) +
                               "\n" + prefix + "number of bytes = -1\n" + prefix +
                               "got NULL data pointer\n");
}

TEST(PipeValidators, AcceptWholeBatchesOfGoodRecordsAndRefuseOthersWithTheirReason) {
    check(validate_ext_fc_status_pipe_data, 8, "external_fc_status_t");
    check(pipe_validate_ndc_coords_data, 24, "ndc_coords_t");
    check(orca_modem_doodle_validate_pipe_data, 32, "Doodle stats");
    check(pipe_validate_bbox_data, 92, "Tflite");
    check(orca_vtx_validate_pipe_data, static_cast<int>(sizeof(VtxLatencyRecord)), "VTX");
}

}  // namespace
