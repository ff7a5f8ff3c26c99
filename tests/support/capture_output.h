// What a piece of in-process code prints on standard output and standard error.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace orca_test {

struct Printed {
    std::string out;
    std::string err;
};

template <typename Call>
Printed capture_output(Call&& call) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    call();
    std::fflush(nullptr);
    Printed printed;
    printed.out = testing::internal::GetCapturedStdout();
    printed.err = testing::internal::GetCapturedStderr();
    return printed;
}

}  // namespace orca_test
