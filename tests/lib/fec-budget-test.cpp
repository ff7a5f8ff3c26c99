#include <climits>

#include <gtest/gtest.h>

#include <orca-vtx/orca-vtx-helpers.h>

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
    void SetUp() override { fec_debt_bytes = 0; }
    vtx_config_t config{"wlan0", false, 0, {vtx_profile_t{0, 0, 0, 1000, 30, VENC_H264}}};
    vtx_profile_t& profile = config.profiles[0];  // 1000 bytes per packet, 30 frames/s
};

TEST_F(AdjustFec, SpareBudgetGoesToFecUpToTheCapOfTheFrameRate) {
    // 4000 bytes in 4 packets of 62 bytes overhead: 4248 on the wire; 90 % of 10000 is 9000.
    EXPECT_EQ(adjust_fec(10000, 4000, &config, 1, 30, 1), 111);
    EXPECT_EQ(config.fec_percent, 111);
    EXPECT_EQ(adjust_fec(100000, 4000, &config, 1, 30, 1), 200);
    profile.framerate = 60;
    EXPECT_EQ(adjust_fec(10000, 4000, &config, 1, 30, 1), 100);
    // H.265 packets carry one byte more: 4252 on the wire.
    profile.venc_mode = VENC_H265;
    EXPECT_EQ(adjust_fec(8300, 4000, &config, 1, 30, 1), 75);
    profile.mtu = 0;  // no packets, no overhead
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
    profile.mtu = 0;  // one byte on the wire against a budget far below nothing: still 75 %
    adjust_fec(INT_MIN, 1, &config, 1, 0, 0);
    EXPECT_EQ(config.fec_percent, 75);
}

TEST(InputBitrate, SumsEveryFrameOverTheSpanOfTheRing) {
    EXPECT_EQ(_calc_input_bitrate_mbps(1, {1000}, {0}), 0.0);
    // A full ring of 60 frames of 1000 bytes (0.48 Mbit), 10 ms apart on the wall clock.
    std::vector<uint64_t> sizes(60, 1000);
    std::vector<int64_t> times(60);
    for (int i = 0; i < 60; ++i)
        times[i] = 1700000000123456789 + i * 10000000LL;
    // Written up to index 59, the position is back at 0: index 0, the oldest frame, is taken
    // as the newest, and the span to index 1 is -10 ms.
    EXPECT_DOUBLE_EQ(_calc_input_bitrate_mbps(0, sizes, times), 0.48 / -0.01);
    // Ten more frames over indices 0 to 9: all 60 summed over the 0.59 s from index 10 to 9.
    for (int i = 0; i < 10; ++i)
        times[i] += 600000000;
    EXPECT_DOUBLE_EQ(_calc_input_bitrate_mbps(10, sizes, times), 0.48 / 0.59);
    // Positions outside the rings as filled, or no time passing, measure nothing.
    EXPECT_EQ(_calc_input_bitrate_mbps(0, {1, 2, 3}, {1, 2, 3}), 0.0);
    EXPECT_EQ(_calc_input_bitrate_mbps(2, {1, 2}, {5, 5}), 0.0);
}

}  // namespace
