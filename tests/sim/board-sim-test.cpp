// The simulator itself, in-process: what the ADS7142 model does with traffic the tool never
// sends, the path sandbox and the virtual clock. Fault injection and the bus nodes are
// exercised by every detector test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "board-sim.h"

namespace {

class BoardSimTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(board_sim::active()) << "run under libboard-sim.so (orca_add_sim_test)";
        board_sim::reset_board();
        fd_ = open("/dev/i2c-1", O_RDWR);
        ASSERT_GE(fd_, 0);
        ASSERT_EQ(ioctl(fd_, I2C_SLAVE, 0x1d), 0);
    }
    void TearDown() override { close(fd_); }

    // Sends each frame, then reads `length` bytes back.
    std::vector<uint8_t> exchange(const std::vector<std::vector<uint8_t>>& frames, size_t length) {
        for (const auto& frame : frames)
            EXPECT_EQ(write(fd_, frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
        std::vector<uint8_t> data(length);
        EXPECT_EQ(read(fd_, data.data(), length), static_cast<ssize_t>(length));
        return data;
    }
    int fd_ = -1;
};

TEST_F(BoardSimTest, Ads7142AnswersAsThePartDoes) {
    // Before any sequence the buffer holds what the device powered up with.
    EXPECT_EQ(exchange({{0x3B}}, 32), std::vector<uint8_t>(32, 0));
    // DEVICE_RESET acts only behind the WKEY unlock.
    EXPECT_EQ(exchange({{0x08, 0x1C, 0x06}, {0x08, 0x14, 0x01}, {0x10, 0x1C}}, 1),
              std::vector<uint8_t>{0x06});
    EXPECT_EQ(exchange({{0x08, 0x17, 0x0A}, {0x08, 0x14, 0x01}, {0x10, 0x1C}}, 1),
              std::vector<uint8_t>{0x00});

    // With both channels sequenced, entries alternate and carry the channel id when the
    // output format asks for it.
    board_sim::update_board_state([](board_sim::BoardState* state) {
        state->frequency_mhz = 5180;
        state->power_index = 30;
    });
    const std::vector<uint8_t> buffer =
        exchange({{0x08, 0x28, 0x02}, {0x08, 0x20, 0x03}, {0x08, 0x1E, 0x01}, {0x3B}}, 32);
    const int ch0 = buffer[0] << 8 | buffer[1];
    const int ch1 = buffer[2] << 8 | buffer[3];
    EXPECT_EQ(ch0 & 0xF, 0x8);
    EXPECT_EQ(ch1 & 0xF, 0x9);
    EXPECT_NEAR((ch0 >> 4) * 1800.0 / 4096, 45.0, 0.5) << "no carrier on the 2.4 GHz detector";
    EXPECT_GT((ch1 >> 4) * 1800.0 / 4096, 500.0) << "a 5 GHz carrier at index 30";
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
    ASSERT_EQ(write(fd_, &command, 1), 1);
    const uint64_t after_command = board_sim::bus_time_ns();
    ASSERT_EQ(read(fd_, buffer, 32), 32);
    EXPECT_EQ(board_sim::bus_time_ns() - after_command, 747500u);
}

}  // namespace
