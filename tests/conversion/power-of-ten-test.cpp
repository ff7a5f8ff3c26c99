// custom_exp10, which turns dBm into mW, and custom_strcasestr.
#include "i2c-monitor.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <string>

namespace {

uint64_t bits(double value) {
    uint64_t b;
    std::memcpy(&b, &value, sizeof b);
    return b;
}

// e^(x ln 10) through y^15/15!, built as a term array first and then folded left to
// right; the last term is fused into the sum.
double series_exp10(double x) {
    const double y = x * 2.30258509299;
    double terms[15];
    terms[0] = 1.0;
    terms[1] = y;
    for (int k = 2; k < 15; ++k)
        terms[k] = terms[k - 1] * y / k;
    double sum = std::accumulate(terms, terms + 15, 0.0);
    return std::fma(y / 15, terms[14], sum);
}

TEST(PowerOfTenTest, WholeNumbersAreExactAndOthersFollowTheSeriesToTheLastBit) {
    for (int k = 0; k <= 20; ++k)
        EXPECT_EQ(custom_exp10(k), std::stod("1e" + std::to_string(k))) << k;
    for (double x : {21.0, -1.0, -0.5, 0.1, 0.5, 1.5, 2.37, 3.0001, 7.5, 20.5, 30.0, -12.25})
        EXPECT_EQ(bits(custom_exp10(x)), bits(series_exp10(x))) << x;
    EXPECT_NEAR(custom_exp10(0.5), 3.16227766, 1e-8);
}

TEST(CaseInsensitiveSearchTest, FindsTheFirstMatchIgnoringCase) {
    const char* text = "Hello World abABc";
    EXPECT_EQ(custom_strcasestr(text, "WORLD"), text + 6);
    EXPECT_EQ(custom_strcasestr(text, "ABC"), text + 14);
    EXPECT_EQ(custom_strcasestr(text, ""), text);
    for (const char* absent : {"worlds", "abcd"})
        EXPECT_EQ(custom_strcasestr(text, absent), nullptr);
    EXPECT_EQ(custom_strcasestr("", "a"), nullptr);
    EXPECT_EQ(custom_strcasestr(nullptr, "a"), nullptr);
    EXPECT_EQ(custom_strcasestr(text, nullptr), nullptr);
}

}  // namespace
