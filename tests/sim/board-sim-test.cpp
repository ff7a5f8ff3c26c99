// The simulator itself, in-process: the path sandbox and the virtual clock. The target
// models, fault injection and the bus nodes are exercised by every detector test.
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "board_test.h"

namespace {

using BoardSimTest = orca_test::BoardTest;

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
