// Runs a piece of library code and returns what it printed on standard output and error.
#pragma once

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

struct Printed {
    std::string out, err;
};

template <typename Body>
Printed capture_output(Body&& body) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    body();
    std::fflush(nullptr);
    std::string out = testing::internal::GetCapturedStdout();
    return {out, testing::internal::GetCapturedStderr()};
}
