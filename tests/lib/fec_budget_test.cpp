#include <gtest/gtest.h>

#include "capture_output.h"
#include "orca-vtx-helpers.h"

namespace {

TEST(MaxBitrate, BytesPerSecondByBandWidthAndMcs) {
    EXPECT_EQ(get_max_bitrate(7, 5805, 40), 16875000);
    EXPECT_EQ(get_max_bitrate(0, 2412, 20), 650000);
    EXPECT_EQ(get_max_bitrate(3, 2462, 40), 5400000);
    EXPECT_EQ(get_max_bitrate(6, 5745, 39), 7312500);
    EXPECT_EQ(get_max_bitrate(9, 5805, 20), 0);
}

class AdjustFec : public testing::Test {
  protected:
    void SetUp() override {
        fec_debt_bytes = 0;
        config.profiles = {vtx_profile_t{}};
        profile().mtu = 1000;
        profile().framerate = 30;
    }
    vtx_profile_t& profile() { return config.profiles[0]; }
    vtx_config_t config;
};

TEST_F(AdjustFec, SpareBudgetGoesToFecUpToTheCapOfTheFrameRate) {
    // 4000 bytes in 4 packets of 62 bytes overhead: 4248 on the wire; 90 % of 10000 is 9000.
    EXPECT_EQ(adjust_fec(10000, 4000, &config, 1, 30, 1), 111);
    EXPECT_EQ(config.fec_percent, 111);
    EXPECT_EQ(adjust_fec(100000, 4000, &config, 1, 30, 1), 200);
    profile().framerate = 60;
    EXPECT_EQ(adjust_fec(10000, 4000, &config, 1, 30, 1), 100);
    // H.265 packets carry one byte more: 4252 on the wire.
    profile().venc_mode = VENC_H265;
    EXPECT_EQ(adjust_fec(8300, 4000, &config, 1, 30, 1), 75);
    profile().mtu = 0;  // no packets, no overhead
    EXPECT_EQ(adjust_fec(10000, 4500, &config, 1, 30, 1), 100);
    EXPECT_EQ(fec_debt_bytes, 0);
}

TEST_F(AdjustFec, ShortfallBecomesDebtThatLaterFramesPayOff) {
    // 4500 of budget against 4248 on the wire leaves 5 %. The frame still gets 75 %, and the
    // 2934 bytes it lacks are owed; the result is the (negative) surplus.
    EXPECT_EQ(adjust_fec(5000, 4000, &config, 1, 30, 0), -2934);
    EXPECT_EQ(config.fec_percent, 75);
    EXPECT_EQ(fec_debt_bytes, 2934);
    // With 2 frames left this one pays half out of its budget: 18000 - 1467 = 16533; 200 %
    // costs 12744, and the surplus of 3789 clears the rest.
    EXPECT_EQ(adjust_fec(20000, 4000, &config, 1, 30, 28), 0);
    EXPECT_EQ(config.fec_percent, 200);
    EXPECT_EQ(fec_debt_bytes, 0);

    fec_debt_bytes = 10000;
    EXPECT_EQ(adjust_fec(20000, 4000, &config, 1, 0, 0), 4744);  // no period: no share
    for (int key_type : {5, 19}) {
        fec_debt_bytes = 50000;
        EXPECT_EQ(adjust_fec(10000, 4000, &config, key_type, 30, 29), 111);
        EXPECT_EQ(fec_debt_bytes, 0);
    }
}

TEST(InputBitrate, SumsEveryFrameOverTheSpanOfTheRing) {
    EXPECT_EQ(_calc_input_bitrate_mbps(1, {1000}, {0}), 0.0);
    // Three frames of 125000 bytes, 0.5 s apart: 3 Mbit over 1 s.
    EXPECT_DOUBLE_EQ(
        _calc_input_bitrate_mbps(3, {125000, 125000, 125000}, {0, 500000000, 1000000000}), 3.0);
    // A full ring written up to index 9: oldest at 10, 10 ms apart.
    std::vector<uint64_t> sizes(60, 1000);
    std::vector<int64_t> times(60);
    for (int i = 0; i < 60; ++i)
        times[i] = (i < 10 ? i + 60 : i) * 10000000LL;
    EXPECT_DOUBLE_EQ(_calc_input_bitrate_mbps(10, sizes, times), 60 * 1000 * 8 / 1e6 / 0.59);
    // Positions outside the rings as filled, or no time passing, measure nothing.
    EXPECT_EQ(_calc_input_bitrate_mbps(0, {1, 2, 3}, {1, 2, 3}), 0.0);
    EXPECT_EQ(_calc_input_bitrate_mbps(2, {1, 2}, {5, 5}), 0.0);
}

TEST(CameraBitrate, DefaultsWhenThePipeHasNoInfo) {
    Printed printed = capture_output(
        [] { EXPECT_EQ(fetch_camera_bitrate("orca-test-no-such-camera-pipe"), 1000000); });
    EXPECT_EQ(printed.out,
              "failed to fetch bitrate from source_parent json array. Defaulting to 1000000 "
              "bps.\n");
}

}  // namespace
