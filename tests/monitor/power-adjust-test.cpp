// Apply-and-measure and the power search in-process on the simulated board, with the
// simulated service's orca-configure-vtx on PATH and a chosen power curve.
#include <cmath>
#include <cstdlib>

#include "board_test.h"
#include "i2c-monitor.h"
#include "run_process.h"

namespace {

using board_sim::BusOp;
using orca_test::capture_output;

// Power index i reads as i × step dBm, but as 0.0 at index `zero_at`.
std::vector<double> curve(double step, int zero_at = 0) {
    std::vector<double> dbm;
    for (int i = 1; i <= 60; ++i)
        dbm.push_back(i == zero_at ? 0.0 : i * step);
    return dbm;
}

class PowerAdjustTest : public orca_test::BoardTest {
  protected:
    void SetUp() override {
        BoardTest::SetUp();
        setenv("PATH", (std::string(SIM_SERVICE_DIR) + ":" + std::getenv("PATH")).c_str(), 1);
        ASSERT_EQ(board_sim::set_power_curve(curve(1.0)), 0);
        init_csv_cache_manager();
        g_global_frequency = 5800;
        g_global_mcs = 0;
    }
    // The indices the simulated service was asked for, in order; the log starts afresh.
    std::string applied() {
        const std::string path = board_sim::sandbox_root() + "/commands.log";
        const std::string log = orca_test::read_file(path);
        std::remove(path.c_str());
        std::string indices;
        for (size_t at = log.find("-p "); at != std::string::npos; at = log.find("-p ", at + 1))
            indices +=
                (indices.empty() ? "" : " ") + std::to_string(std::atoi(log.c_str() + at + 3));
        return indices;
    }
    // The channel-1 detector at the given power index for the next read cycles (60
    // sequences each); a negative entry is a cycle that fails after one sequence.
    void queue_cycles(const std::vector<int>& indices) {
        for (int index : indices) {
            const long code = std::lround((100.0 + 25.0 * std::abs(index)) * 4096 / 1800) << 4;
            for (int i = 0; i < (index < 0 ? 1 : 60); ++i)
                board_sim::queue_adc_buffer(orca_test::buffer_of(0, static_cast<uint16_t>(code)));
        }
    }
    SensorReading reading_{};
};

TEST_F(PowerAdjustTest, ThreeReadingsGiveTheirMedianOrTheMeanOfThoseThatWorked) {
    queue_cycles({10, 14, 11});
    const uint64_t waited = board_sim::wait_time_ns();
    auto printed =
        capture_output([&] { EXPECT_EQ(apply_power_and_read_dbm(fd_, 5, &reading_, 5.8), 11); });
    EXPECT_EQ(printed.out,
              "Taking reading 1 of 3...\nReading 1 complete: 10.00 dBm\n"
              "Taking reading 2 of 3...\nReading 2 complete: 14.00 dBm\n"
              "Taking reading 3 of 3...\nReading 3 complete: 11.00 dBm\n"
              "Using median value: 11.00 dBm\n");
    EXPECT_EQ(reading_.ch1_dbm, 11.0);
    EXPECT_EQ(applied(), "5");
    // Settle 250 ms, 100 ms before readings 2 and 3, 60 pauses of 1 ms per cycle.
    EXPECT_EQ(board_sim::wait_time_ns() - waited, 630'000'000u);

    // The second reading's cycle (the 61st buffer read) fails and so does its retry: the mean
    // of the other two. Then only the first try fails, and the retry counts.
    board_sim::set_faults({{BusOp::kRead, 0x1d, 61, 2}});
    queue_cycles({10, -1, -1, 13});
    printed =
        capture_output([&] { EXPECT_EQ(apply_power_and_read_dbm(fd_, 6, &reading_, 5.1), 11.5); });
    EXPECT_NE(printed.out.find("Reading 2 failed, retrying...\nFailed to read data buffer entries, "
                               "retrying in 5 seconds...\nReading 2 failed again!\n"
                               "Taking reading 3 of 3...\nReading 3 complete: 13.00 dBm\n"
                               "Got 2 valid readings out of 3 expected\n"
                               "Using average of valid readings: 11.50 dBm\n"),
              std::string::npos)
        << printed.out;
    board_sim::set_faults({{BusOp::kRead, 0x1d, 61, 1}});
    queue_cycles({20, -1, 22, 21});
    printed =
        capture_output([&] { EXPECT_EQ(apply_power_and_read_dbm(fd_, 6, &reading_, 5.1), 21); });
    EXPECT_NE(printed.out.find("Reading 2 failed, retrying...\nReading 2 complete: 22.00 dBm\n"),
              std::string::npos);

    // 2.4 takes channel 0, where the 5 GHz figure is the idle detector's.
    ASSERT_EQ(board_sim::update_board_state([](auto* s) { s->frequency_mhz = 2412; }), 0);
    g_global_frequency = 2412;
    capture_output([&] { EXPECT_EQ(apply_power_and_read_dbm(fd_, 7, &reading_, 2.4), 7.0); });
    EXPECT_EQ(reading_.ch0_dbm, 7.0);
    EXPECT_EQ(reading_.ch1_dbm, -99.0);
}

TEST_F(PowerAdjustTest, RefusedLevelsAndUnknownRadioStateReadAsFailure) {
    for (int level : {0, 61}) {
        auto printed = capture_output(
            [&] { EXPECT_EQ(apply_power_and_read_dbm(fd_, level, &reading_, 5.8), -1); });
        EXPECT_EQ(printed.err,
                  "Invalid power level " + std::to_string(level) + ". Must be between 1 and 60.\n");
    }
    EXPECT_EQ(applied(), "");

    // Never told the radio state: every cycle fails on MCS -9999; the level is still set,
    // and the search takes -1.0 as a reading far below the target and climbs.
    g_global_frequency = 0;
    g_global_mcs = 0;
    bool adjust = true;
    int chosen = 0;
    auto printed = capture_output([&] {
        EXPECT_EQ(apply_power_and_read_dbm(fd_, 9, &reading_, 5.8), -1);
        set_dBm(fd_, &reading_, &adjust, &chosen, 20.0, 5800.0);
    });
    EXPECT_NE(printed.out.find("Reading 3 failed again!\nAll readings failed or were skipped!\n"
                               "Testing power level 30 -> -1.0 dBm\n"),
              std::string::npos);
    EXPECT_EQ(applied(), "9 30 45 53 57 59 60 30");
    EXPECT_EQ(chosen, 30);
    EXPECT_FALSE(adjust);
}

TEST_F(PowerAdjustTest, SearchBisectsThenScansWithinItsTargetAndBandLimits) {
    const std::string refused =
        "Error: Invalid frequency band. Must be 2.4, 5.1, or 5.8 GHz band.\n";
    const struct {
        double target, frequency, step;  // step: the power curve
        int zero_at;
        const char* applied;  // the last is the index chosen and set
        std::string err;
        const char* shown;  // nullptr: refused, nothing printed
    } cases[] = {
        {17.13, 5800, 0.5, 0, "30 45 37 33 35 35", "",
         "to achieve 17.25 dBm at 5.8 GHz...\nStarting binary search for power level...\n"
         "Target dBm: 17.2\n"},
        {17.12, 5800, 0.5, 0, "30 45 37 33 35 34 34", "",
         "Testing power level 34 -> 17.0 dBm\nNew best power level found: 34 (17.0 dBm, 0.0 from "
         "target)\nFound power level within tolerance!\nOptimal power level found: 34\n"},
        // The linear scan ends it; of all indices tried 16 and 17 are closest, 16 first.
        {16.5, 5800, 1.0, 0, "30 15 22 18 16 17 16", "",
         "Testing power level 17 -> 17.0 dBm\nBinary search complete. Best power level found: 16\n"
         "Optimal power level found: 16\n"},
        {20, 5800, 0.5, 30, "30 1", "",
         "Testing power level 30 -> 0.0 dBm\nDetected 0 dBm reading at high power level 30\n"
         "This indicates potential signal issues - using minimum power for safety\n"
         "Binary search complete. Best power level found: 1 (selecting minimum power due to zero "
         "readings at high power)\nOptimal power level found: 1\n"},
        {10, 5800, 0.5, 20, "30 15 22 18 20 21 21", "",
         "Testing power level 20 -> 0.0 dBm\ndBm too low, searching higher range (21 to 21)\n"},
        // Index 25 is not yet high power: its zero reading is only far from the target.
        {24.75, 5800, 1.0, 25, "30 15 22 26 24 25 24", "",
         "Testing power level 25 -> 0.0 dBm\nBinary search complete. Best power level found: 24\n"},
        // Index 26 is: the same reading there ends the search at the lowest power.
        {24.75, 5800, 1.0, 26, "30 15 22 26 1", "",
         "Testing power level 26 -> 0.0 dBm\nDetected 0 dBm reading at high power level 26\n"},
        {30.2, 5800, 0.5, 0, "30 45 53 57 59 60 60",
         "Desired dBm is too high. Capping to 30 dBm.\n", "achieve 30.00"},
        {30.1, 5299, 0.5, 0, "30 45 53 57 59 60 60", "", "achieve 30.00"},
        {-3.0, 5700, 0.5, 0, "30 15 7 3 1 2 1", "Desired dBm is too low. Setting it to 0.\n",
         "achieve 0.00"},
        {20.0, 5320, 0.5, 0, "", refused, nullptr},
        {20.0, 5699, 0.5, 0, "", refused, nullptr},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(board_sim::set_power_curve(curve(c.step, c.zero_at)), 0);
        init_csv_cache_manager();
        bool adjust = true;
        int chosen = 77;
        auto printed = capture_output(
            [&] { set_dBm(fd_, &reading_, &adjust, &chosen, c.target, c.frequency); });
        EXPECT_EQ(printed.err, c.err) << c.target;
        const std::string indices = c.applied;
        EXPECT_EQ(applied(), indices) << c.target << " at " << c.frequency;
        EXPECT_EQ(chosen, indices.empty() ? 77 : std::stoi(indices.substr(indices.rfind(' '))));
        EXPECT_FALSE(adjust);
        if (c.shown)
            EXPECT_NE(printed.out.find(c.shown), std::string::npos) << printed.out;
        else
            EXPECT_EQ(printed.out, "");
    }
}

}  // namespace
