// The simulator itself, in-process: the path sandbox, the virtual clock, the table of
// targets, faults that name a register and the count of frames no device understands.
// The target models and the bus nodes are exercised by every detector test.
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <vector>

#include "board_test.h"
#include "preload-trace.h"
#include "target-table.h"

namespace {

using BoardSimTest = orca_test::BoardTest;

// One transfer to the selected target: a write of `bytes`, or a read of `read` bytes.
struct Frame {
    std::vector<uint8_t> bytes;
    size_t read = 0;
};

// Returns the transfer's result, as write() or read() gave it.
ssize_t transfer(int fd, const Frame& frame) {
    uint8_t buffer[64];
    return frame.read > 0 ? read(fd, buffer, frame.read)
                          : write(fd, frame.bytes.data(), frame.bytes.size());
}

int smbus_receive_byte(int fd) {
    i2c_smbus_data data{};
    i2c_smbus_ioctl_data request{I2C_SMBUS_READ, 0, I2C_SMBUS_BYTE, &data};
    return ioctl(fd, I2C_SMBUS, &request);
}

TEST_F(BoardSimTest, FixedPathsLiveInTheSandbox) {
    const std::string root = board_sim::sandbox_root();
    ASSERT_EQ(root.rfind("/tmp/", 0), 0u) << root;
    FILE* file = std::fopen("/data/quillon/vtx/probe.csv", "w");
    ASSERT_NE(file, nullptr);
    std::fclose(file);
    EXPECT_EQ(board_sim::sandbox_path("/etc/passwd"), "/etc/passwd");
    EXPECT_EQ(mkdir("/run/fjp/vtx_latency", 0755), 0);
    EXPECT_EQ(rename("/data/quillon/vtx/probe.csv", "/run/fjp/vtx_latency/probe"), 0);
    EXPECT_EQ(access((root + "/run/fjp/vtx_latency/probe").c_str(), F_OK), 0);
    // The simulated board's own conversion tables are in place.
    EXPECT_EQ(access("/data/quillon/vtx/5_8_mv_to_dbm.csv", R_OK), 0);
}

TEST_F(BoardSimTest, MainThreadWaitsRunOnTheVirtualClock) {
    timespec before{}, now{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    const uint64_t waited = board_sim::wait_time_ns();
    const uint64_t real_start = board_sim::real_monotonic_ns();
    EXPECT_EQ(sleep(100), 0u);
    EXPECT_EQ(usleep(250000), 0);
    clock_gettime(CLOCK_MONOTONIC, &now);
    EXPECT_EQ(board_sim::wait_time_ns() - waited, 100250000000u);
    EXPECT_GE(now.tv_sec - before.tv_sec, 100);
    EXPECT_LT(board_sim::real_monotonic_ns() - real_start, 5000000000u);

    // Bus traffic costs its wire time: 33 bytes of 9 bits plus start and stop at 400 kHz.
    uint8_t buffer[32];
    const uint8_t command = 0x3B;
    ASSERT_EQ(ioctl(fd_, I2C_SLAVE, 0x1d), 0);
    ASSERT_EQ(write(fd_, &command, 1), 1);
    const uint64_t after_command = board_sim::bus_time_ns();
    ASSERT_EQ(read(fd_, buffer, 32), 32);
    EXPECT_EQ(board_sim::bus_time_ns() - after_command, 747500u);
}

TEST_F(BoardSimTest, FramesNoDeviceUnderstandsAreCounted) {
    const struct {
        const char* what;
        int address;
        std::vector<Frame> frames;
        uint64_t unexpected;
    } cases[] = {
        {"converter register write and read back",
         0x1d,
         {{{0x08, 0x1C, 0x06}}, {{0x10, 0x1C}}, {{}, 1}},
         0},
        {"converter buffer read", 0x1d, {{{0x3B}}, {{}, 32}}, 0},
        {"presence check", 0x1d, {{{0x00}}}, 0},
        {"register write without its value", 0x1d, {{{0x08, 0x1C}}}, 1},
        {"unknown opcode", 0x1d, {{{0x55, 0x01}}}, 1},
        {"read with no read command before it", 0x1d, {{{0x08, 0x1C, 0x06}}, {{}, 2}}, 1},
        {"temperature read", 0x48, {{{0x00}}, {{}, 2}}, 0},
        {"configuration write", 0x48, {{{0x01, 0x60, 0xA0}}}, 0},
        {"write to the read-only temperature register", 0x48, {{{0x00, 0x12, 0x34}}}, 1},
        {"pointer past the last register", 0x48, {{{0x04}}}, 1},
        {"half a register", 0x48, {{{0x01, 0x60}}}, 1},
    };
    uint64_t sent_on_purpose = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const uint64_t before = board_sim::unexpected_frames();
        ASSERT_EQ(ioctl(fd_, I2C_SLAVE, c.address), 0);
        for (const Frame& frame : c.frames)
            EXPECT_GT(transfer(fd_, frame), 0) << "every frame is acknowledged";
        EXPECT_EQ(board_sim::unexpected_frames() - before, c.unexpected);
        sent_on_purpose += c.unexpected;
    }

    // Scans only look for the acknowledge, and a frame that a fault cut short is explained.
    const uint64_t before = board_sim::unexpected_frames();
    ASSERT_EQ(ioctl(fd_, I2C_SLAVE, 0x1d), 0);
    EXPECT_EQ(smbus_receive_byte(fd_), 0);
    ASSERT_EQ(board_sim::set_faults("write:0x1d:1:1:short"), 0);
    EXPECT_EQ(transfer(fd_, {{0x08, 0x1C, 0x06}}), 2);
    EXPECT_EQ(board_sim::unexpected_frames(), before);
    orca_test::expect_unexpected_frames(sent_on_purpose);
}

TEST_F(BoardSimTest, FaultsNamingARegisterHitOnlyThatRegister) {
    // The second write of START_SEQUENCE fails; other registers and the buffer are spared.
    ASSERT_EQ(board_sim::set_faults("write:0x1d:reg=0x1e:2;read:0x48:reg=0x01:1"), 0);
    ASSERT_EQ(ioctl(fd_, I2C_SLAVE, 0x1d), 0);
    const Frame start{{0x08, 0x1E, 0x01}};
    EXPECT_EQ(transfer(fd_, start), 3);
    EXPECT_EQ(transfer(fd_, {{0x08, 0x1C, 0x06}}), 3);
    EXPECT_EQ(transfer(fd_, {{0x3B}}), 1);
    EXPECT_EQ(transfer(fd_, start), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(transfer(fd_, start), 3) << "count 1: only the second fails";
    EXPECT_EQ(board_sim::adc_sequences(), 2);

    // A read is the register the pointer chose: the temperature read passes, the
    // configuration read fails.
    ASSERT_EQ(ioctl(fd_, I2C_SLAVE, 0x48), 0);
    EXPECT_EQ(transfer(fd_, {{0x00}}), 1);
    EXPECT_EQ(transfer(fd_, {{}, 2}), 2);
    EXPECT_EQ(transfer(fd_, {{0x01}}), 1);
    EXPECT_EQ(transfer(fd_, {{}, 2}), -1);

    // Malformed specs are refused.
    for (const char* bad : {"select:0x1d:reg=0x1e:1", "write:0x1d:reg=0x100:1", "write:0x1d:reg=:1",
                            "write:0x1d:reg=0x1e", "write:0x1d:1:reg=0x1e"}) {
        SCOPED_TRACE(bad);
        const auto printed =
            orca_test::capture_output([&] { EXPECT_EQ(board_sim::set_faults(bad), -1); });
        EXPECT_NE(printed.err.find("bad fault"), std::string::npos) << printed.err;
    }
}

TEST(TargetTable, OneDevicePerBusAndAddress) {
    struct Device : board_sim::I2cTarget {
        bool write(const uint8_t*, size_t) override { return true; }
        bool read(uint8_t*, size_t) override { return true; }
    } adc, sensor, intruder;
    board_sim::TargetTable table;
    std::string error;
    EXPECT_EQ(table.add(1, 0x1d, "adc", &adc, &error), 0);
    EXPECT_EQ(table.add(1, 0x48, "sensor", &sensor, &error), 0);
    EXPECT_EQ(table.add(2, 0x1d, "adc", &intruder, &error), 0) << "another bus is another place";

    const struct {
        int bus, address;
        board_sim::I2cTarget* device;
        const char* error;
    } refused[] = {
        {1, 0x48, &intruder, "intruder and sensor both answer at bus 1 address 0x48"},
        {1, 0x80, &intruder, "intruder: no device can answer at bus 1 address 0x80"},
        {1, 0x50, nullptr, "intruder: no device can answer at bus 1 address 0x50"},
    };
    for (const auto& r : refused) {
        EXPECT_EQ(table.add(r.bus, r.address, "intruder", r.device, &error), -1);
        EXPECT_EQ(error, r.error);
    }
    EXPECT_EQ(table.entries().size(), 3u);
    EXPECT_EQ(table.find(1, 0x48), &sensor);
    EXPECT_EQ(table.find(2, 0x1d), &intruder);
    EXPECT_EQ(table.find(3, 0x1d), nullptr);
}

TEST(PreloadLookup, AMissingLibcFunctionEndsTheProcessNamingIt) {
    EXPECT_NE(board_sim::next_definition_or_abort("open"), nullptr);
    EXPECT_DEATH(board_sim::next_definition_or_abort("orca_no_such_function"),
                 "board-sim: cannot find the libc function orca_no_such_function after the "
                 "preload");
}

// The board temperature as its sensor at 0x48 reports it.
double sensor_celsius(int fd) {
    uint8_t pointer = 0x00, word[2] = {};
    if (ioctl(fd, I2C_SLAVE, 0x48) != 0 || write(fd, &pointer, 1) != 1 || read(fd, word, 2) != 2)
        return -999.0;
    return static_cast<int16_t>(word[0] << 8 | word[1]) / 16 / 16.0;
}

TEST_F(BoardSimTest, RealBoardHeatsOnTheVirtualClock) {
    ASSERT_EQ(board_sim::update_board_state([](board_sim::BoardState* s) {
                  s->frequency_mhz = 5805;
                  s->power_index = 60;
                  s->extra = {{"board", "typical"},      {"ambient_c", "25"},
                              {"thermal_c_per_w", "10"}, {"thermal_tau_s", "100"},
                              {"pa_efficiency", "0.25"}, {"quiescent_w", "1"}};
              }),
              0);
    const board_sim::BoardState state = board_sim::board_state();
    EXPECT_NEAR(sensor_celsius(fd_), 25.0, 0.07);
    // Towards 25 + 10 °C/W x (1 W + 3 x the output in W), 1 - 1/e of the way after one
    // time constant.
    const double steady =
        25.0 + 10.0 * (1.0 + 3.0 * std::pow(10.0, state.output_dbm / 10.0) / 1000.0);
    sleep(100);
    EXPECT_NEAR(sensor_celsius(fd_), 25.0 + (steady - 25.0) * (1.0 - std::exp(-1.0)), 0.1);
    sleep(1000);
    EXPECT_NEAR(sensor_celsius(fd_), steady, 0.1);

    // Off the air it cools towards the quiescent 35 °C; a temperature set on purpose holds
    // as the new starting point.
    ASSERT_EQ(board_sim::update_board_state([](board_sim::BoardState* s) { s->tx_on = false; }), 0);
    sleep(1000);
    EXPECT_NEAR(sensor_celsius(fd_), 35.0, 0.1);
    ASSERT_EQ(
        board_sim::update_board_state([](board_sim::BoardState* s) { s->temperature_c = 60; }), 0);
    EXPECT_NEAR(sensor_celsius(fd_), 60.0, 0.07);
}

}  // namespace
