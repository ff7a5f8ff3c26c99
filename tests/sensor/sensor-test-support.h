// Helpers for the detector tests, which run in-process on the simulated board.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <string>

#include "board-sim.h"

namespace sensor_test {

// What a call printed on each stream.
struct Printed {
    std::string out;
    std::string err;
};

template <typename Call>
Printed capture(Call call) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    call();
    Printed printed;
    printed.out = testing::internal::GetCapturedStdout();
    printed.err = testing::internal::GetCapturedStderr();
    return printed;
}

inline bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1 || errno != EBADF;
}

inline board_sim::Fault fault(board_sim::BusOp op, int address, int nth,
                              bool short_transfer = false) {
    board_sim::Fault f;
    f.op = op;
    f.address = address;
    f.nth = nth;
    f.short_transfer = short_transfer;
    return f;
}

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

}  // namespace sensor_test
