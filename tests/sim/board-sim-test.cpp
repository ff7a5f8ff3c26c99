// The simulator itself, in-process: the path sandbox and the virtual clock. The target
// models, fault injection and the bus nodes are exercised by every detector test.
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

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

}  // namespace
