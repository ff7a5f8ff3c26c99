// The simulator itself, in-process: what the target models do with traffic the tool never
// sends, fault counting, the i2c-dev nodes, the path sandbox and the virtual clock.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
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

    void send(std::vector<uint8_t> frame) {
        ASSERT_EQ(write(fd_, frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
    }
    std::vector<uint8_t> receive(size_t length) {
        std::vector<uint8_t> data(length);
        EXPECT_EQ(read(fd_, data.data(), length), static_cast<ssize_t>(length));
        return data;
    }
    int fd_ = -1;
};

TEST_F(BoardSimTest, Ads7142AnswersAsThePartDoes) {
    // Before any sequence the buffer holds what the device powered up with.
    send({0x3B});
    EXPECT_EQ(receive(32), std::vector<uint8_t>(32, 0));

    // Register reads return the register; DEVICE_RESET acts only behind the WKEY unlock.
    send({0x08, 0x1C, 0x06});
    send({0x08, 0x14, 0x01});
    send({0x10, 0x1C});
    EXPECT_EQ(receive(1), std::vector<uint8_t>{0x06});
    send({0x08, 0x17, 0x0A});
    send({0x08, 0x14, 0x01});
    send({0x10, 0x1C});
    EXPECT_EQ(receive(1), std::vector<uint8_t>{0x00});

    // With both channels sequenced, entries alternate and carry the channel id when the
    // output format asks for it.
    board_sim::update_board_state([](board_sim::BoardState* state) {
        state->frequency_mhz = 5180;
        state->power_index = 30;
    });
    send({0x08, 0x28, 0x02});
    send({0x08, 0x20, 0x03});
    send({0x08, 0x1E, 0x01});
    send({0x3B});
    const std::vector<uint8_t> buffer = receive(32);
    const int ch0 = buffer[0] << 8 | buffer[1];
    const int ch1 = buffer[2] << 8 | buffer[3];
    EXPECT_EQ(ch0 & 0xF, 0x8);
    EXPECT_EQ(ch1 & 0xF, 0x9);
    EXPECT_NEAR((ch0 >> 4) * 1800.0 / 4096, 45.0, 0.5) << "no carrier on the 2.4 GHz detector";
    EXPECT_GT((ch1 >> 4) * 1800.0 / 4096, 500.0) << "a 5 GHz carrier at index 30";
}

TEST_F(BoardSimTest, FaultsHitTheNthOperationForTheirCount) {
    board_sim::Fault fault;
    fault.op = board_sim::BusOp::kWrite;
    fault.address = 0x1d;
    fault.nth = 2;
    fault.count = 2;
    board_sim::Fault shortened;
    shortened.op = board_sim::BusOp::kRead;
    shortened.address = 0x1d;
    shortened.short_transfer = true;
    board_sim::set_faults({fault, shortened});

    const uint8_t frame[3] = {0x08, 0x1C, 0x06};
    EXPECT_EQ(write(fd_, frame, 3), 3);
    EXPECT_EQ(write(fd_, frame, 3), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(write(fd_, frame, 3), -1);
    EXPECT_EQ(write(fd_, frame, 3), 3);
    uint8_t data[2];
    EXPECT_EQ(read(fd_, data, 2), 1);
    EXPECT_EQ(read(fd_, data, 2), 2);

    // Targets that are not there do not acknowledge.
    ASSERT_EQ(ioctl(fd_, I2C_SLAVE, 0x50), 0);
    EXPECT_EQ(write(fd_, frame, 3), -1);
    EXPECT_EQ(errno, ENXIO);
}

TEST_F(BoardSimTest, I2cNodesExistForTheBoardsBusesOnly) {
    board_sim::update_board_state([](board_sim::BoardState* state) { state->buses = {0, 3}; });
    EXPECT_EQ(access("/dev/i2c-3", F_OK), 0);
    EXPECT_EQ(access("/dev/i2c-1", F_OK), -1);
    struct stat st {};
    ASSERT_EQ(stat("/dev/i2c-0", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(open("/dev/i2c-2", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);

    unsigned long functions = 0;
    ASSERT_EQ(ioctl(fd_, I2C_FUNCS, &functions), 0);
    EXPECT_TRUE(functions & I2C_FUNC_SMBUS_READ_BYTE);
}

TEST_F(BoardSimTest, FixedPathsLiveInTheSandbox) {
    const std::string root = board_sim::sandbox_root();
    ASSERT_EQ(root.rfind("/tmp/", 0), 0u) << root;
    FILE* file = std::fopen("/data/quillon/vtx/probe.csv", "w");
    ASSERT_NE(file, nullptr);
    std::fputs("x\n", file);
    std::fclose(file);
    EXPECT_EQ(access((root + "/data/quillon/vtx/probe.csv").c_str(), F_OK), 0);
    EXPECT_EQ(board_sim::sandbox_path("/run/fjp/vtx_latency"), root + "/run/fjp/vtx_latency");
    EXPECT_EQ(board_sim::sandbox_path("/etc/passwd"), "/etc/passwd");
    EXPECT_EQ(mkdir("/run/fjp/vtx_latency", 0755), 0);
    EXPECT_EQ(rename("/data/quillon/vtx/probe.csv", "/run/fjp/vtx_latency/probe"), 0);
    EXPECT_EQ(access((root + "/run/fjp/vtx_latency/probe").c_str(), F_OK), 0);
    // The simulated board's own conversion tables are in place.
    EXPECT_EQ(access("/data/quillon/vtx/5_8_mv_to_dbm.csv", R_OK), 0);
}

TEST_F(BoardSimTest, PipeBusSocketsBindInTheSandbox) {
    ASSERT_EQ(mkdir("/run/fjp/vtx_latency", 0755), 0);
    const int server = socket(AF_UNIX, SOCK_STREAM, 0);
    const int client = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(server, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/run/fjp/vtx_latency/socket");
    ASSERT_EQ(bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(server, 1), 0);
    struct stat st {};
    ASSERT_EQ(lstat((board_sim::sandbox_root() + "/run/fjp/vtx_latency/socket").c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(client);
    close(server);
}

TEST_F(BoardSimTest, FaultsOfTheSharedStateApplyToo) {
    board_sim::update_board_state(
        [](board_sim::BoardState* state) { state->faults = "select:0x48:2;bogus"; });
    testing::internal::CaptureStderr();
    EXPECT_EQ(ioctl(fd_, I2C_SLAVE, 0x48), 0);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("bad fault \"bogus\""),
              std::string::npos);
    board_sim::update_board_state(
        [](board_sim::BoardState* state) { state->faults = "select:0x48:2"; });
    EXPECT_EQ(ioctl(fd_, I2C_SLAVE, 0x48), 0);
    EXPECT_EQ(ioctl(fd_, I2C_SLAVE, 0x48), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(ioctl(fd_, I2C_SLAVE, 0x48), 0);
}

TEST_F(BoardSimTest, MainThreadWaitsRunOnTheVirtualClock) {
    timespec before{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    const uint64_t waited = board_sim::wait_time_ns();
    const uint64_t real_start = board_sim::real_monotonic_ns();
    EXPECT_EQ(sleep(100), 0u);
    EXPECT_EQ(usleep(250000), 0);
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    EXPECT_EQ(board_sim::wait_time_ns() - waited, 100250000000u);
    EXPECT_GE(now.tv_sec - before.tv_sec, 100);
    EXPECT_LT(board_sim::real_monotonic_ns() - real_start, 5000000000u);

    // Bus traffic costs its wire time: 33 bytes of 9 bits plus start and stop at 400 kHz.
    const uint64_t bus = board_sim::bus_time_ns();
    uint8_t buffer[32];
    const uint8_t command = 0x3B;
    ASSERT_EQ(write(fd_, &command, 1), 1);
    const uint64_t after_command = board_sim::bus_time_ns();
    ASSERT_EQ(read(fd_, buffer, 32), 32);
    EXPECT_EQ(board_sim::bus_time_ns() - after_command, 747500u);
    EXPECT_GT(after_command, bus);
}

}  // namespace
