// Runs a piece of library code and returns what it printed on standard output and error.
#pragma once

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

struct Printed {
    std::string out;
    std::string err;
};

template <typename Body>
Printed capture_output(Body&& body) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    body();
    std::fflush(nullptr);
    Printed printed;
    printed.out = testing::internal::GetCapturedStdout();
    printed.err = testing::internal::GetCapturedStderr();
    return printed;
}
