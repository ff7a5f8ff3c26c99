// For tests that run in-process on the simulated board (orca_add_sim_test): a fresh board
// with bus 1 open as the tool opens it, and the helpers of the detector tests.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>

#include "board-sim.h"
#include "capture_output.h"

namespace orca_test {

// The number of frames no simulated device understands that the running test sends on
// purpose; any other number fails it at its end. Zero at the start of every test.
void expect_unexpected_frames(uint64_t count);

// Open for I/O. A closed descriptor and a number kept taken after its bus was closed (an
// O_PATH placeholder) both refuse every read, write and ioctl.
inline bool is_open(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags == -1)
        return errno != EBADF;
    return (flags & O_PATH) == 0;
}

// A data buffer whose eight pairs all hold the same two entries.
inline std::array<uint16_t, 16> buffer_of(uint16_t ch0_entry, uint16_t ch1_entry) {
    std::array<uint16_t, 16> entries{};
    for (size_t i = 0; i < entries.size(); i += 2) {
        entries[i] = ch0_entry;
        entries[i + 1] = ch1_entry;
    }
    return entries;
}

// A fresh board and bus 1 opened as the tool opens it.
class BoardTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(board_sim::active()) << "run under libboard-sim.so (orca_add_sim_test)";
        board_sim::reset_board();
        fd_ = open("/dev/i2c-1", O_RDWR);
        ASSERT_GE(fd_, 0);
    }
    void TearDown() override {
        if (fd_ >= 0 && is_open(fd_))
            close(fd_);
    }
    int fd_ = -1;
};

}  // namespace orca_test
