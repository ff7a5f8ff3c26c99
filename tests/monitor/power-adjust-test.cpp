// Apply-and-measure and the power search in-process on the simulated board, with the
// simulated service's orca-configure-vtx on PATH and a chosen power curve.
#include <cmath>
#include <cstdlib>

#include "i2c-monitor.h"
#include "run_process.h"
#include "sensor-test-support.h"

namespace {

using board_sim::BusOp;
using sensor_test::capture;

// Power index i reads as i × step dBm.
std::vector<double> curve(double step) {
    std::vector<double> dbm;
    for (int i = 1; i <= 60; ++i)
        dbm.push_back(i * step);
    return dbm;
}

class PowerAdjustTest : public sensor_test::BoardTest {
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
    std::vector<int> applied() {
        const std::string path = board_sim::sandbox_root() + "/commands.log";
        const std::string log = orca_test::read_file(path);
        std::remove(path.c_str());
        std::vector<int> indices;
        for (size_t at = log.find("-p "); at != std::string::npos; at = log.find("-p ", at + 1))
            indices.push_back(std::atoi(log.c_str() + at + 3));
        return indices;
    }
    // The channel-1 detector at the given power index for the next read cycles (60
    // sequences each); a negative entry is a cycle that fails after one sequence.
    void queue_cycles(const std::vector<int>& indices) {
        for (int index : indices) {
            const long code = std::lround((100.0 + 25.0 * std::abs(index)) * 4096 / 1800) << 4;
            for (int i = 0; i < (index < 0 ? 1 : 60); ++i)
                board_sim::queue_adc_buffer(sensor_test::buffer_of(0, static_cast<uint16_t>(code)));
        }
    }
    SensorReading reading_{};
};

TEST_F(PowerAdjustTest, ThreeReadingsGiveTheirMedianOrTheMeanOfThoseThatWorked) {
    queue_cycles({10, 14, 11});
    const uint64_t waited = board_sim::wait_time_ns();
    auto printed =
        capture([&] { EXPECT_EQ(apply_power_and_read_dbm(fd_, 5, &reading_, 5.8), 11); });
    EXPECT_EQ(printed.out,
              "Taking reading 1 of 3...\nReading 1 complete: 10.00 dBm\n"
              "Taking reading 2 of 3...\nReading 2 complete: 14.00 dBm\n"
              "Taking reading 3 of 3...\nReading 3 complete: 11.00 dBm\n"
              "Using median value: 11.00 dBm\n");
    EXPECT_EQ(reading_.ch1_dbm, 11.0);
    EXPECT_EQ(applied(), std::vector<int>{5});
    // Settle 250 ms, 100 ms before readings 2 and 3, 60 pauses of 1 ms per cycle.
    EXPECT_EQ(board_sim::wait_time_ns() - waited, 630'000'000u);

    // The second reading's cycle fails (the 61st buffer read), its retry too, or not.
    const struct {
        int failing_reads;
        std::vector<int> cycles;
        double result;
        const char* shown;
    } cases[] = {
        {2,
         {10, -1, -1, 13},
         11.5,
         "Reading 2 failed, retrying...\nFailed to read data buffer entries, retrying in 5 "
         "seconds...\nReading 2 failed again!\nTaking reading 3 of 3...\n"
         "Reading 3 complete: 13.00 dBm\nGot 2 valid readings out of 3 expected\n"
         "Using average of valid readings: 11.50 dBm\n"},
        {1, {20, -1, 22, 21}, 21, "Reading 2 failed, retrying...\nReading 2 complete: 22.00 dBm\n"},
    };
    for (const auto& c : cases) {
        board_sim::set_faults({{BusOp::kRead, 0x1d, 61, c.failing_reads, false}});
        queue_cycles(c.cycles);
        printed =
            capture([&] { EXPECT_EQ(apply_power_and_read_dbm(fd_, 6, &reading_, 5.1), c.result); });
        EXPECT_NE(printed.out.find(c.shown), std::string::npos) << printed.out;
    }
}

TEST_F(PowerAdjustTest, TwoPointFourTakesChannelZero) {
    ASSERT_EQ(board_sim::update_board_state([](auto* s) { s->frequency_mhz = 2412; }), 0);
    g_global_frequency = 2412;
    capture([&] { EXPECT_EQ(apply_power_and_read_dbm(fd_, 7, &reading_, 2.4), 7.0); });
    EXPECT_EQ(reading_.ch0_dbm, 7.0);
    EXPECT_EQ(reading_.ch1_dbm, -99.0);  // channel 1 idles on 2.4 GHz
}

TEST_F(PowerAdjustTest, RefusedLevelsAndUnknownRadioStateReadAsFailure) {
    for (int level : {0, 61}) {
        auto printed =
            capture([&] { EXPECT_EQ(apply_power_and_read_dbm(fd_, level, &reading_, 5.8), -1); });
        EXPECT_EQ(printed.err,
                  "Invalid power level " + std::to_string(level) + ". Must be between 1 and 60.\n");
    }
    EXPECT_TRUE(applied().empty());

    // Never told the radio state: every cycle fails on MCS -9999; the level is still set,
    // and the search takes -1.0 as a reading far below the target and climbs.
    g_global_frequency = 0;
    g_global_mcs = 0;
    bool adjust = true;
    int chosen = 0;
    auto printed = capture([&] {
        EXPECT_EQ(apply_power_and_read_dbm(fd_, 9, &reading_, 5.8), -1);
        set_dBm(fd_, &reading_, &adjust, &chosen, 20.0, 5800.0);
    });
    EXPECT_NE(printed.out.find("Reading 3 failed again!\nAll readings failed or were skipped!\n"
                               "Testing power level 30 -> -1.0 dBm\n"),
              std::string::npos);
    EXPECT_EQ(applied(), (std::vector<int>{9, 30, 45, 53, 57, 59, 60, 30}));
    EXPECT_EQ(chosen, 30);
    EXPECT_FALSE(adjust);
}

TEST_F(PowerAdjustTest, SearchQuantisesAndLimitsTheTargetAndKeepsToItsBands) {
    const std::string refused =
        "Error: Invalid frequency band. Must be 2.4, 5.1, or 5.8 GHz band.\n";
    const struct {
        double target;
        double frequency;
        const char* searched;  // nullptr: refused
        std::string err;
        std::vector<int> applied;
    } cases[] = {
        {30.2,
         5800,
         "30.00",
         "Desired dBm is too high. Capping to 30 dBm.\n",
         {30, 45, 53, 57, 59, 60, 60}},
        {30.1, 5299, "30.00", "", {30, 45, 53, 57, 59, 60, 60}},
        {-3.0, 5700, "0.00", "Desired dBm is too low. Setting it to 0.\n", {30, 15, 7, 3, 1, 2, 1}},
        {20.0, 5320, nullptr, refused, {}},
        {20.0, 5699, nullptr, refused, {}},
    };
    ASSERT_EQ(board_sim::set_power_curve(curve(0.5)), 0);
    init_csv_cache_manager();
    for (const auto& c : cases) {
        bool adjust = true;
        int chosen = 77;
        auto printed =
            capture([&] { set_dBm(fd_, &reading_, &adjust, &chosen, c.target, c.frequency); });
        EXPECT_EQ(printed.err, c.err) << c.target;
        EXPECT_EQ(applied(), c.applied) << c.target << " at " << c.frequency;
        EXPECT_EQ(chosen, c.applied.empty() ? 77 : c.applied.back());
        EXPECT_FALSE(adjust);
        if (c.searched)
            EXPECT_NE(printed.out.find(std::string("achieve ") + c.searched), std::string::npos);
        else
            EXPECT_EQ(printed.out, "");
    }
}

}  // namespace
