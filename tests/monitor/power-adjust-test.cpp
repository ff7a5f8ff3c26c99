// Apply-and-measure and the power search in-process on the simulated board, with the
// simulated service's orca-configure-vtx on PATH and a power curve chosen per test.
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "i2c-monitor.h"
#include "run_process.h"
#include "sensor-test-support.h"

namespace {

using sensor_test::capture;

// Power index i reads as i × step dBm.
std::vector<double> curve(double step) {
    std::vector<double> dbm;
    for (int i = 1; i <= 60; ++i)
        dbm.push_back(i * step);
    return dbm;
}

// One converter buffer whose channel-1 entries show the detector at power index `index`.
std::array<uint16_t, 16> channel1_at(int index) {
    const double mv = 100.0 + 25.0 * index;
    return sensor_test::buffer_of(0, static_cast<uint16_t>(std::lround(mv * 4096 / 1800) << 4));
}

class PowerAdjustTest : public sensor_test::BoardTest {
  protected:
    void SetUp() override {
        BoardTest::SetUp();
        const std::string path = std::string(SIM_SERVICE_DIR) + ":" + std::getenv("PATH");
        setenv("PATH", path.c_str(), 1);
        ASSERT_EQ(board_sim::set_power_curve(curve(1.0)), 0);
        init_csv_cache_manager();
        g_global_frequency = 5800;
        g_global_mcs = 0;
    }
    // The indices the simulated service was asked for, in order.
    std::vector<int> applied() {
        std::vector<int> indices;
        const std::string log = orca_test::read_file(board_sim::sandbox_root() + "/commands.log");
        for (size_t at = log.find("-p "); at != std::string::npos; at = log.find("-p ", at + 1))
            indices.push_back(std::atoi(log.c_str() + at + 3));
        return indices;
    }
    // Each fixed read cycle takes 60 sequences; `blocks` gives the index each cycle shows.
    void queue_cycles(const std::vector<int>& blocks) {
        for (int index : blocks)
            for (int i = 0; i < (index < 0 ? 1 : 60); ++i)
                board_sim::queue_adc_buffer(channel1_at(std::abs(index)));
    }
    SensorReading reading_{};
};

TEST_F(PowerAdjustTest, ThreeReadingsGiveTheirMedianOrTheMeanOfThoseThatWorked) {
    queue_cycles({10, 14, 11});
    const uint64_t waited = board_sim::wait_time_ns();
    auto printed =
        capture([&] { EXPECT_EQ(apply_power_and_read_dbm(fd_, 5, &reading_, 5.8), 11.0); });
    EXPECT_EQ(printed.out,
              "Taking reading 1 of 3...\nReading 1 complete: 10.00 dBm\n"
              "Taking reading 2 of 3...\nReading 2 complete: 14.00 dBm\n"
              "Taking reading 3 of 3...\nReading 3 complete: 11.00 dBm\n"
              "Using median value: 11.00 dBm\n");
    EXPECT_EQ(reading_.ch1_dbm, 11.0);
    EXPECT_EQ(applied(), std::vector<int>{5});
    // Settle 250 ms, 100 ms before readings 2 and 3, 60 pauses of 1 ms per cycle.
    EXPECT_EQ(board_sim::wait_time_ns() - waited, 630'000'000u);

    // Reading 2 fails, and fails again on its retry (one sequence each): the mean of two.
    board_sim::set_faults({{board_sim::BusOp::kRead, 0x1d, 61, 2, false}});
    queue_cycles({10, -1, -1, 13});
    printed = capture([&] { EXPECT_EQ(apply_power_and_read_dbm(fd_, 6, &reading_, 5.1), 11.5); });
    for (const char* line : {"Reading 2 failed, retrying...\n", "Reading 2 failed again!\n",
                             "Got 2 valid readings out of 3 expected\n",
                             "Using average of valid readings: 11.50 dBm\n"})
        EXPECT_NE(printed.out.find(line), std::string::npos) << line << printed.out;

    // A retry that works counts as the reading itself.
    board_sim::set_faults({{board_sim::BusOp::kRead, 0x1d, 61, 1, false}});
    queue_cycles({20, -1, 22, 21});
    printed = capture([&] { EXPECT_EQ(apply_power_and_read_dbm(fd_, 7, &reading_, 5.8), 21.0); });
    EXPECT_NE(printed.out.find("Reading 2 failed, retrying...\nReading 2 complete: 22.00 dBm\n"),
              std::string::npos)
        << printed.out;
    EXPECT_EQ(applied(), (std::vector<int>{5, 6, 7}));
}

TEST_F(PowerAdjustTest, BandSelectsTheDetectorChannel) {
    // On 2.4 GHz the carrier shows on channel 0, and the result goes back there.
    ASSERT_EQ(board_sim::update_board_state([](auto* s) { s->frequency_mhz = 2412; }), 0);
    g_global_frequency = 2412;
    capture([&] { EXPECT_EQ(apply_power_and_read_dbm(fd_, 7, &reading_, 2.4), 7.0); });
    EXPECT_EQ(reading_.ch0_dbm, 7.0);
    EXPECT_EQ(reading_.ch1_dbm, -99.0);
}

TEST_F(PowerAdjustTest, RefusedLevelsAndUnknownRadioStateReadAsFailure) {
    for (int level : {0, 61}) {
        auto printed =
            capture([&] { EXPECT_EQ(apply_power_and_read_dbm(fd_, level, &reading_, 5.8), -1.0); });
        EXPECT_EQ(printed.err,
                  "Invalid power level " + std::to_string(level) + ". Must be between 1 and 60.\n");
    }
    EXPECT_TRUE(applied().empty());

    // Never told the radio state: every cycle fails on MCS -9999, the level is still applied.
    g_global_frequency = 0;
    g_global_mcs = 0;
    auto printed =
        capture([&] { EXPECT_EQ(apply_power_and_read_dbm(fd_, 9, &reading_, 5.8), -1.0); });
    EXPECT_NE(printed.out.find("Reading 3 failed again!\nAll readings failed or were skipped!\n"),
              std::string::npos);
    EXPECT_EQ(applied(), std::vector<int>{9});

    // The search takes -1.0 as a reading far below any target and climbs.
    bool adjust = true;
    int chosen = 0;
    capture([&] { set_dBm(fd_, &reading_, &adjust, &chosen, 20.0, 5800.0); });
    EXPECT_EQ(applied(), (std::vector<int>{9, 30, 45, 53, 57, 59, 60, 30}));
    EXPECT_EQ(chosen, 30);
    EXPECT_FALSE(adjust);
}

TEST_F(PowerAdjustTest, SearchQuantisesAndLimitsTheTargetAndKeepsToItsBands) {
    const struct {
        double target;
        double frequency;
        const char* searched;  // the target as searched, or nullptr when refused
        const char* err;
        std::vector<int> applied;
    } cases[] = {
        {30.2,
         5800,
         "30.00",
         "Desired dBm is too high. Capping to 30 dBm.\n",
         {30, 45, 53, 57, 59, 60, 60}},
        {30.1, 5299, "30.00", "", {30, 45, 53, 57, 59, 60, 60}},
        {-3.0, 5700, "0.00", "Desired dBm is too low. Setting it to 0.\n", {30, 15, 7, 3, 1, 2, 1}},
        {20.0,
         5320,
         nullptr,
         "Error: Invalid frequency band. Must be 2.4, 5.1, or 5.8 GHz band.\n",
         {}},
        {20.0,
         5699,
         nullptr,
         "Error: Invalid frequency band. Must be 2.4, 5.1, or 5.8 GHz band.\n",
         {}},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(board_sim::set_power_curve(curve(0.5)), 0);
        init_csv_cache_manager();
        std::remove((board_sim::sandbox_root() + "/commands.log").c_str());
        bool adjust = true;
        int chosen = 77;
        auto printed =
            capture([&] { set_dBm(fd_, &reading_, &adjust, &chosen, c.target, c.frequency); });
        EXPECT_EQ(printed.err, c.err) << c.target;
        EXPECT_EQ(applied(), c.applied) << c.target << " at " << c.frequency;
        EXPECT_EQ(chosen, c.applied.empty() ? 77 : c.applied.back());
        EXPECT_FALSE(adjust);
        if (c.searched)
            EXPECT_NE(printed.out.find(std::string("to achieve ") + c.searched + " dBm"),
                      std::string::npos)
                << printed.out;
        else
            EXPECT_EQ(printed.out, "");
    }
}

}  // namespace
