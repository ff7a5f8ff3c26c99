#include <gtest/gtest.h>

#include "capture_output.h"
#include "command_stand_ins.h"
#include <orca-vtx/orca-common.h>

using orca_test::capture_output;
using orca_test::Printed;

namespace {

TEST(ChannelPlan, ConversionsAndBands) {
    EXPECT_EQ(band_2g_channels.size() + band_5g_channels.size(), all_channels.size());
    EXPECT_EQ(all_channels.size(), 41u);
    for (const auto& [channel, frequency] : all_channels) {
        EXPECT_EQ(frequency_to_channel(frequency), channel);
        EXPECT_EQ(channel_to_band(channel), frequency_to_band(frequency)) << channel;
    }
    std::vector<int> frequencies;
    for (int channel : {1, 14, 36, 144, 173})
        frequencies.push_back(channel_to_frequency(channel));
    EXPECT_EQ(frequencies, (std::vector{2412, 2484, 5180, 5720, 5865}));
    Printed printed = capture_output([] {
        EXPECT_EQ(channel_to_frequency(15), -1);
        EXPECT_EQ(frequency_to_channel(5750), -1);
    });
    EXPECT_EQ(printed.err,
              "Invalid channel provided (CH: 15)!\nInvalid frequency provided (FRQ: 5750)!\n");
}

TEST(ChannelPlan, ScanningWrapsAndCrossesBands) {
    EXPECT_EQ(get_next_channel(173, SCAN_DIRECTION_UP), 1);
    EXPECT_EQ(get_next_channel(1, SCAN_DIRECTION_DOWN), 173);
    EXPECT_EQ(get_next_channel(14, SCAN_DIRECTION_UP), 36);
    EXPECT_EQ(get_next_channel(149, scan_direction_e(7)), 144);  // anything but 1 goes down
    Printed printed =
        capture_output([&] { EXPECT_EQ(get_next_channel(37, SCAN_DIRECTION_UP), 37); });
    EXPECT_EQ(printed.out, "INVALID Channel provided (37). Staying on current frequency.\n");
}

TEST(ChannelPlan, SecondaryChannelSide) {
    const int minus[] = {2457, 5320, 5720, 5885}, plus[] = {2452, 5180, 5865};
    for (int frequency : minus)
        EXPECT_STREQ(bw_for_frequency(frequency), "HT40-") << frequency;
    for (int frequency : plus)
        EXPECT_STREQ(bw_for_frequency(frequency), "HT40+") << frequency;
}

TEST(Tuning, CommandByChipFrequencyAndWidth) {
    CommandStandIns commands;
    const struct {
        const char* driver;
        int frequency, bandwidth, domain;
        const char* command;
    } cases[] = {
        // This chip stays on one of two fixed channels, whatever was asked.
        {"rtl88xxau_vtx", 5745, 40, 1, "iw dev wlan0 set freq 5180 HT40+"},
        {"rtl8812au", 5320, 40, 0, "iw dev wlan0 set freq 5200 HT40-"},
        {"rtl8812au", 2484, 20, 1, "iw dev wlan0 set freq 5180 HT20"},
        {"pci:ath9k", 5240, 20, 1, "iw dev wlan0 set freq 5240 HT20"},
        {"pci:ath9k", 2462, 40, 1, "iw dev wlan0 set freq 2462 HT40-"},
        {"pci:ath9k", 2484, 40, 1, "iw dev wlan0 set freq 2484"},
    };
    for (const auto& c : cases) {
        commands.answer("ls", std::string(c.driver) + "\n");
        EXPECT_EQ(
            set_frequency_and_bw("wlan0", c.frequency, c.bandwidth, RegulatoryDomain(c.domain)), 0);
        EXPECT_EQ(commands.calls().back(), c.command);
    }
    EXPECT_EQ(commands.calls()[0], "ls /sys/class/net/wlan0/device/driver/module/drivers");
    EXPECT_EQ(get_chip("wlan0"), "pci:ath9k");

    // FCC refuses the DFS channels without touching the radio; iw's status is passed on.
    commands.answer("iw", "", 2);
    const size_t before = commands.calls().size();
    Printed printed = capture_output([] {
        EXPECT_EQ(set_frequency_and_bw("wlan0", 5260, 20, RegulatoryDomain::fcc), -1);
        EXPECT_EQ(set_frequency_and_bw("wlan0", 5720, 40, RegulatoryDomain::fcc), -1);
        EXPECT_EQ(set_frequency_and_bw("wlan0", 5720, 40, RegulatoryDomain::off), 2);
    });
    const std::string refused = "DFS Channels disabled! (Channels 52-144, 5240-5720MHz)\n";
    EXPECT_EQ(printed.out, refused + refused);
    EXPECT_EQ(commands.calls().size(), before + 2);  // ls and iw, for the last one only
    EXPECT_EQ(commands.calls().back(), "iw dev wlan0 set freq 5720 HT40-");
}

}  // namespace
