// Linked into every in-process test on the simulated board (orca_add_sim_test): a test
// fails when a device on the simulated buses saw frames it could not make sense of, unless
// it sent them on purpose and said how many (expect_unexpected_frames).
#include <gtest/gtest.h>

#include <cstdint>

#include "board_test.h"

namespace orca_test {

namespace {

uint64_t g_expected = 0;
uint64_t g_at_start = 0;

class UnexpectedFramesCheck : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override {
        g_expected = 0;
        g_at_start = board_sim::unexpected_frames();
    }
    // Runs before the result printer's OnTestEnd, so the failure is shown with the test.
    void OnTestEnd(const testing::TestInfo&) override {
        const uint64_t seen = board_sim::unexpected_frames() - g_at_start;
        EXPECT_EQ(seen, g_expected)
            << "frames that no simulated device understood; run the test with "
               "ORCA_SIM_TRACE=bus to see them";
    }
};

// Appended after the default printer, as listeners that raise failures must be.
const bool g_registered = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new UnexpectedFramesCheck);
    return true;
}();

}  // namespace

void expect_unexpected_frames(uint64_t count) {
    g_expected = count;
}

}  // namespace orca_test
