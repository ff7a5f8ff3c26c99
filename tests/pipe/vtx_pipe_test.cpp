// The vtx_latency validator, the data callback and the radio-state copy, in-process.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "fjord_pipe.h"
#include "i2c-monitor.h"
#include "orca-vtx-helpers.h"
#include "vtx_pipe.h"

namespace {

// An 81-byte record laid out by hand at its wire offsets.
std::string wire_record(int frequency, int mcs, int power_index, uint32_t magic = 0x4F524341) {
    std::string bytes(81, '\0');
    const double temperature = 41.5, dbm = 22.25;
    memcpy(&bytes[0], &magic, 4);
    memcpy(&bytes[45], &temperature, 8);
    memcpy(&bytes[53], &dbm, 8);
    memcpy(&bytes[65], &power_index, 4);
    memcpy(&bytes[69], &frequency, 4);
    memcpy(&bytes[73], &mcs, 4);
    return bytes;
}

// What `call` writes to standard error.
std::string stderr_of(const std::function<void()>& call) {
    FILE* capture = tmpfile();
    const int saved = dup(2);
    dup2(fileno(capture), 2);
    call();
    dup2(saved, 2);
    close(saved);
    std::string text(static_cast<size_t>(ftell(capture)), '\0');
    rewind(capture);
    text.resize(fread(&text[0], 1, text.size(), capture));
    fclose(capture);
    return text;
}

struct Validation {
    VtxLatencyRecord* records = nullptr;
    int count = -1;
    std::string errors;
};

Validation validate(char* data, int length) {
    Validation v;
    v.errors = stderr_of([&] { v.records = orca_vtx_validate_pipe_data(data, length, &v.count); });
    return v;
}

const std::string kPrefix = "ERROR validating VTX data received through pipe: ";

}  // namespace

TEST(VtxLatencyValidator, AcceptsWholeRecordsOnly) {
    std::string three =
        wire_record(5180, 1, 10) + wire_record(5200, 2, 20) + wire_record(5745, 3, 30);
    Validation v = validate(three.data(), 243);
    EXPECT_EQ(v.records, reinterpret_cast<VtxLatencyRecord*>(three.data()));
    EXPECT_EQ(v.count, 3);
    const int third_frequency = v.records[2].frequency_mhz;  // packed: no reference to it
    EXPECT_EQ(third_frequency, 5745);
    EXPECT_EQ(v.errors, "");

    v = validate(three.data(), 0);
    EXPECT_NE(v.records, nullptr);
    EXPECT_EQ(v.count, 0);
    EXPECT_EQ(v.errors, "");

    for (int length : {80, 82}) {
        v = validate(three.data(), length);
        EXPECT_EQ(v.records, nullptr);
        EXPECT_EQ(v.count, 0);
        EXPECT_EQ(v.errors, kPrefix + "read partial packet\nread " + std::to_string(length) +
                                " bytes, but it should be a multiple of 81\n");
    }
}

TEST(VtxLatencyValidator, RejectsBadMagicNegativeLengthAndNull) {
    std::string batch = wire_record(5180, 1, 10) + wire_record(5200, 2, 20, 0x12345678);
    Validation v = validate(batch.data(), 162);
    EXPECT_EQ(v.records, nullptr);
    EXPECT_EQ(v.count, 0);
    EXPECT_EQ(v.errors, "ERROR got magic number 305419896, expected 1330791233\n" + kPrefix +
                            "1 of 2 packets failed\n");

    // Every record is checked, and the magic prints as a signed number.
    std::string two_bad =
        wire_record(1, 1, 1, 0xFFFFFFFF) + wire_record(2, 2, 2) + wire_record(3, 3, 3, 0x41435246);
    EXPECT_EQ(validate(two_bad.data(), 243).errors,
              "ERROR got magic number -1, expected 1330791233\n"
              "ERROR got magic number 1094931014, expected 1330791233\n" +
                  kPrefix + "2 of 3 packets failed\n");

    v = validate(batch.data(), -5);
    EXPECT_EQ(v.records, nullptr);
    EXPECT_EQ(v.errors, kPrefix + "number of bytes = -5\n");
    v = validate(nullptr, 81);
    EXPECT_EQ(v.records, nullptr);
    EXPECT_EQ(v.count, 0);
    EXPECT_EQ(v.errors, kPrefix + "got NULL data pointer\n");
}

class VtxDataCallback : public ::testing::Test {
  protected:
    void SetUp() override {
        g_frequency = 5800;
        g_mcs = 0;
        g_power_idx = 1;
        g_vtx_data_updated = false;
    }
    void deliver(std::string bytes, int length) {
        stderr_of([&] { _vtx_data_cb(0, bytes.data(), length, nullptr); });
    }
    void expect_state(bool updated, int frequency, int mcs, int power_index) {
        EXPECT_EQ(g_vtx_data_updated, updated);
        EXPECT_EQ(g_frequency, frequency);
        EXPECT_EQ(g_mcs, mcs);
        EXPECT_EQ(g_power_idx, power_index);
    }
};

TEST_F(VtxDataCallback, TakesTheLastRecordOfAGoodBatch) {
    deliver(wire_record(5180, 1, 10) + wire_record(2412, 2, 20) + wire_record(5745, 7, 33), 243);
    expect_state(true, 5745, 7, 33);
}

TEST_F(VtxDataCallback, BadOrEmptyBatchesChangeNothing) {
    deliver(wire_record(5180, 1, 10), 81);
    g_vtx_data_updated = false;
    deliver(wire_record(2412, 2, 20) + wire_record(5745, 3, 30, 0), 162);
    deliver(wire_record(2412, 2, 20), 80);
    deliver(wire_record(2412, 2, 20) + "x", 82);
    deliver("", 0);
    deliver(wire_record(2412, 2, 20), -1);
    expect_state(false, 5180, 1, 10);
}

TEST_F(VtxDataCallback, GetVtxConfigPublishesTheState) {
    deliver(wire_record(5200, 4, 42), 81);
    int mcs = -1, frequency = -1, power_index = -1;
    get_vtx_config(&mcs, &frequency, &power_index);
    EXPECT_EQ(std::vector<int>({mcs, frequency, power_index}), std::vector<int>({4, 5200, 42}));
    EXPECT_EQ(std::vector<int>({g_global_mcs, g_global_frequency, g_global_power_idx}),
              std::vector<int>({4, 5200, 42}));
}

TEST(VtxPipeInit, OpensOnTheFixedPathWithoutAPublisher) {
    EXPECT_EQ(init_vtx_pipe(), 0);  // only connects; creates nothing under /run/fjp/
    EXPECT_STREQ(VTX_PIPE_PATH, "/run/fjp/vtx_latency");
    EXPECT_LT(init_vtx_pipe(), 0);
    pipe_client_close_all();
}
