// The vtx_latency validator, the data callback and the radio-state copy, in-process.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "capture_output.h"
#include "i2c-monitor.h"
#include <orca-vtx/orca-vtx-helpers.h>
#include "vtx_pipe.h"

namespace {

// An 81-byte record laid out by hand at its wire offsets.
std::string wire_record(int frequency, int mcs, int power_index, uint32_t magic = 0x4F524341) {
    std::string bytes(81, '\0');
    memcpy(&bytes[0], &magic, 4);
    memcpy(&bytes[65], &power_index, 4);
    memcpy(&bytes[69], &frequency, 4);
    memcpy(&bytes[73], &mcs, 4);
    return bytes;
}

const std::string kPrefix = "ERROR validating VTX data received through pipe: ";

}  // namespace

TEST(VtxLatencyValidator, AcceptsWholeRecordsWithTheMagicNumberOnly) {
    std::string good =
        wire_record(5180, 1, 10) + wire_record(5200, 2, 20) + wire_record(5745, 3, 30);
    // Every record is checked, and the magic prints as a signed number.
    std::string bad =
        wire_record(1, 1, 1, 0xFFFFFFFF) + wire_record(2, 2, 2) + wire_record(3, 3, 3, 0x12345678);
    // The magic as a big-endian publisher would send it.
    std::string swapped = wire_record(5180, 1, 10, 0x4143524F);
    const std::string partial = kPrefix + "read partial packet\nread 8";
    const std::string wrong = "ERROR got magic number 305419896, expected 1330791233\n";
    const struct {
        char* data;
        int length;
        int count;  // -1: rejected
        std::string errors;
    } cases[] = {
        {good.data(), 243, 3, ""},
        {good.data(), 81, 1, ""},
        {good.data(), 0, 0, ""},
        {good.data(), 80, -1, partial + "0 bytes, but it should be a multiple of 81\n"},
        {good.data(), 82, -1, partial + "2 bytes, but it should be a multiple of 81\n"},
        {bad.data() + 81, 162, -1, wrong + kPrefix + "1 of 2 packets failed\n"},
        {bad.data(), 243, -1,
         "ERROR got magic number -1, expected 1330791233\n" + wrong + kPrefix +
             "2 of 3 packets failed\n"},
        {swapped.data(), 81, -1,
         "ERROR got magic number 1094931023, expected 1330791233\n" + kPrefix +
             "1 of 1 packets failed\n"},
        {good.data(), -5, -1, kPrefix + "number of bytes = -5\n"},
        {nullptr, 81, -1, kPrefix + "got NULL data pointer\n"},
    };
    for (const auto& c : cases) {
        VtxLatencyRecord* records = nullptr;
        int count = -1;
        const auto printed = orca_test::capture_output(
            [&] { records = orca_vtx_validate_pipe_data(c.data, c.length, &count); });
        EXPECT_EQ(printed.err, c.errors) << c.length;
        EXPECT_EQ(count, c.count < 0 ? 0 : c.count) << c.length;
        EXPECT_EQ(records, c.count < 0 ? nullptr : reinterpret_cast<VtxLatencyRecord*>(c.data));
    }
}

TEST(VtxDataCallback, TakesTheLastRecordOfAGoodBatchOnly) {
    const auto deliver = [](std::string bytes, int length) {
        orca_test::capture_output([&] { _vtx_data_cb(0, bytes.data(), length, nullptr); });
    };
    g_vtx_data_updated = false;
    deliver(wire_record(5180, 1, 10) + wire_record(2412, 2, 20) + wire_record(5200, 4, 42), 243);
    EXPECT_TRUE(g_vtx_data_updated);

    // Bad or empty batches change nothing.
    g_vtx_data_updated = false;
    deliver(wire_record(2412, 2, 20) + wire_record(5745, 3, 30, 0), 162);
    deliver(wire_record(2412, 2, 20) + "x", 82);
    deliver("", 0);
    EXPECT_FALSE(g_vtx_data_updated);

    int mcs = -1, frequency = -1, power_index = -1;
    get_vtx_config(&mcs, &frequency, &power_index);
    EXPECT_EQ(std::vector<int>({mcs, frequency, power_index, g_global_mcs, g_global_frequency,
                                g_global_power_idx}),
              std::vector<int>({4, 5200, 42, 4, 5200, 42}));
}
