#include <gtest/gtest.h>

#include "capture_output.h"
#include "command_stand_ins.h"
#include "orca-common.h"

namespace {

using Strings = std::vector<std::string>;

TEST(ChannelPlan, ConversionsAndBands) {
    EXPECT_EQ(band_2g_channels.size(), 14u);
    EXPECT_EQ(band_5g_channels.size(), 27u);
    EXPECT_EQ(all_channels.size(), 41u);
    for (const auto& [channel, frequency] : all_channels) {
        EXPECT_EQ(frequency_to_channel(frequency), channel);
        EXPECT_EQ(channel_to_band(channel), frequency_to_band(frequency)) << channel;
    }
    const std::pair<int, int> known[] = {{1, 2412}, {14, 2484}, {144, 5720}, {173, 5865}};
    for (const auto& [channel, frequency] : known)
        EXPECT_EQ(channel_to_frequency(channel), frequency);
    EXPECT_EQ(frequency_to_band(5179), 0);
    EXPECT_EQ(channel_to_band(36), 1);
    Printed printed = capture_output([] {
        EXPECT_EQ(channel_to_frequency(15), -1);
        EXPECT_EQ(frequency_to_channel(5750), -1);
    });
    EXPECT_EQ(printed.err,
              "Invalid channel provided (CH: 15)!\nInvalid frequency provided (FRQ: 5750)!\n");
}

TEST(ChannelPlan, ScanningWrapsAndCrossesBands) {
    const auto up = SCAN_DIRECTION_UP;
    EXPECT_EQ(get_next_channel(173, up), 1);
    EXPECT_EQ(get_next_channel(1, SCAN_DIRECTION_DOWN), 173);
    EXPECT_EQ(get_next_channel(14, up), 36);
    EXPECT_EQ(get_next_channel(64, up), 100);
    EXPECT_EQ(get_next_channel(144, up), 149);
    EXPECT_EQ(get_next_channel(149, static_cast<scan_direction_e>(7)), 144);
    Printed printed = capture_output([&] { EXPECT_EQ(get_next_channel(37, up), 37); });
    EXPECT_EQ(printed.out, "INVALID Channel provided (37). Staying on current frequency.\n");
}

TEST(ChannelPlan, SecondaryChannelSide) {
    const std::pair<int, const char*> cases[] = {{2452, "HT40+"}, {2457, "HT40-"}, {5180, "HT40+"},
                                                 {5320, "HT40-"}, {5720, "HT40-"}, {5885, "HT40-"},
                                                 {5865, "HT40+"}};
    for (const auto& [frequency, side] : cases)
        EXPECT_STREQ(bw_for_frequency(frequency), side) << frequency;
}

class Tuning : public testing::Test {
  protected:
    int tune(int frequency, int bandwidth, RegulatoryDomain domain = RegulatoryDomain::fcc) {
        return set_frequency_and_bw("wlan0", frequency, bandwidth, domain);
    }
    const std::string kListing = "ls /sys/class/net/wlan0/device/driver/module/drivers";
    CommandStandIns commands;
};

TEST_F(Tuning, PassesFrequencyAndModeToIw) {
    commands.set_output("ls", "pci:ath9k\n");
    EXPECT_EQ(get_chip("wlan0"), "pci:ath9k");
    EXPECT_EQ(tune(5240, 20), 0);
    EXPECT_EQ(tune(2462, 40), 0);
    EXPECT_EQ(tune(2484, 40), 0);
    commands.set_status("iw", 2);
    EXPECT_EQ(tune(5745, 40), 2);
    EXPECT_EQ(commands.calls(),
              (Strings{kListing, kListing, "iw dev wlan0 set freq 5240 HT20", kListing,
                       "iw dev wlan0 set freq 2462 HT40-", kListing, "iw dev wlan0 set freq 2484",
                       kListing, "iw dev wlan0 set freq 5745 HT40+"}));
}

TEST_F(Tuning, Rtl8812auIsTunedToItsFixedChannel) {
    commands.set_output("ls", "usb:rtl88xxau_vtx\n");
    EXPECT_EQ(get_chip("wlan0"), "rtl8812au");
    EXPECT_EQ(tune(5745, 40), 0);
    EXPECT_EQ(tune(5320, 40, RegulatoryDomain::off), 0);
    EXPECT_EQ(tune(2484, 20), 0);
    const Strings calls = commands.calls();
    EXPECT_EQ(
        Strings(calls.begin() + 2, calls.end()),
        (Strings{"iw dev wlan0 set freq 5180 HT40+", kListing, "iw dev wlan0 set freq 5200 HT40-",
                 kListing, "iw dev wlan0 set freq 5180 HT20"}));
}

TEST_F(Tuning, FccRefusesDfsChannelsWithoutTouchingTheRadio) {
    for (int frequency : {5260, 5720}) {
        Printed printed = capture_output([&] { EXPECT_EQ(tune(frequency, 20), -1); });
        EXPECT_EQ(printed.out, "DFS Channels disabled! (Channels 52-144, 5240-5720MHz)\n");
    }
    EXPECT_TRUE(commands.calls().empty());
    EXPECT_EQ(tune(5500, 20, RegulatoryDomain::off), 0);
    EXPECT_EQ(commands.calls().back(), "iw dev wlan0 set freq 5500 HT20");
}

}  // namespace
