// I2C framing, reset, buffer decoding, temperature conversion and the device probe,
// checked against the simulated ADS7142 and temperature sensor.
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>

#include "board_test.h"
#include "i2c-monitor.h"

namespace {

using board_sim::BusOp;
using board_sim::Transfer;
using board_sim::TransferKind;
using orca_test::buffer_of;
using orca_test::capture_output;

class Ads7142Test : public orca_test::BoardTest {
  protected:
    void SetUp() override {
        BoardTest::SetUp();
        ASSERT_EQ(ioctl(fd_, I2C_SLAVE, 0x1d), 0);
    }
};

TEST_F(Ads7142Test, RegisterFramesWordReadsAndTheirFailures) {
    board_sim::start_recording();
    EXPECT_EQ(write_register(fd_, OPMODE_SEL, 0x06), 0);
    EXPECT_EQ(read_register(fd_, OPMODE_SEL), 0x06);
    const std::vector<Transfer> traffic = board_sim::recorded_traffic();
    ASSERT_EQ(traffic.size(), 3u);
    EXPECT_EQ(traffic[0], (Transfer{1, 0x1d, TransferKind::kWrite, {0x08, 0x1C, 0x06}, true}));
    EXPECT_EQ(traffic[1], (Transfer{1, 0x1d, TransferKind::kWrite, {0x10, 0x1C}, true}));
    EXPECT_EQ(traffic[2], (Transfer{1, 0x1d, TransferKind::kRead, {0x06}, true}));

    // The read cycle shows the other transfers failing; a register read fails in two steps.
    const std::pair<BusOp, std::string> failures[] = {
        {BusOp::kWrite, "Failed to set register for reading: Input/output error\n"},
        {BusOp::kRead, "Failed to read from the i2c bus: Input/output error\n"},
    };
    for (const auto& [op, err] : failures) {
        board_sim::set_faults({{op, 0x1d}});
        EXPECT_EQ(capture_output([&] { EXPECT_EQ(read_register(fd_, WKEY), -1); }).err, err);
    }

    // The temperature register is read big-endian after its pointer byte.
    board_sim::set_temperature_word(0xFF00);
    ASSERT_EQ(ioctl(fd_, I2C_SLAVE, 0x48), 0);
    EXPECT_EQ(read_word_data(fd_, 0x00), 0xFF00);
}

TEST_F(Ads7142Test, ResetUnlocksResetsAndLocksAgain) {
    ASSERT_EQ(write_register(fd_, OPMODE_SEL, 0x06), 0);
    auto printed = capture_output([&] { EXPECT_EQ(reset_device(fd_, 1), 0); });
    EXPECT_EQ(printed.out, "Device reset successfully.\nWKEY register set to 0x00 for safety.\n");
    EXPECT_EQ(board_sim::adc_register(OPMODE_SEL), 0) << "the reset did not reach the device";
    EXPECT_EQ(board_sim::adc_register(WKEY), 0) << "WKEY left unlocked";

    const std::pair<const char*, const char*> step_failures[] = {
        {"write:0x1d:reg=0x17:1", "Failed to write to WKEY register.\n"},
        {"write:0x1d:reg=0x14:1", "Failed to write to DEVICE_RESET register.\n"},
        {"write:0x1d:reg=0x17:2",
         "Device reset successfully.\nFailed to write to WKEY register for safety.\n"},
    };
    for (const auto& [fault, out] : step_failures) {
        ASSERT_EQ(board_sim::set_faults(fault), 0);
        printed = capture_output([&] { EXPECT_EQ(reset_device(fd_, 1), -1); });
        EXPECT_EQ(printed.out, out);
        EXPECT_EQ(printed.err, "Failed to write to the i2c bus: Input/output error\n");
    }
}

TEST_F(Ads7142Test, BufferEntriesBecomeRunningPeaksPerChannel) {
    ASSERT_EQ(write_register(fd_, 0x1E, 0x01), 0);  // one sequence of queued entries
    double ch0 = 0.0, ch1 = 0.0;
    board_sim::queue_adc_buffer(buffer_of(0xFFF0, 0xFFF0));
    ASSERT_EQ(write_register(fd_, 0x1E, 0x01), 0);
    ASSERT_EQ(read_all_data_buffer_entries_by_channel(fd_, &ch0, &ch1), 0);
    EXPECT_EQ(ch0, 1799.560546875);
    EXPECT_EQ(ch1, 1799.560546875);

    // Low 4 bits are not data; position, not the id there, decides the channel. The peak
    // is over all eight pairs, wherever it sits, and only ever rises.
    for (size_t pair = 0; pair < 8; ++pair) {
        std::array<uint16_t, 16> entries = buffer_of(0x1001, 0x0800);
        entries[2 * pair] = 0x200F;            // channel 0: code 0x200 = 225 mV
        entries[2 * (7 - pair) + 1] = 0x4000;  // channel 1: code 0x400 = 450 mV
        board_sim::queue_adc_buffer(entries);
        ASSERT_EQ(write_register(fd_, 0x1E, 0x01), 0);
        ch0 = ch1 = 0.0;
        ASSERT_EQ(read_all_data_buffer_entries_by_channel(fd_, &ch0, &ch1), 0);
        EXPECT_EQ(ch0, 225.0) << "channel 0 peak in pair " << pair;
        EXPECT_EQ(ch1, 450.0) << "channel 1 peak in pair " << 7 - pair;
    }
    ch1 = 2000.0;
    ASSERT_EQ(read_all_data_buffer_entries_by_channel(fd_, &ch0, &ch1), 0);
    EXPECT_EQ(ch0, 225.0);
    EXPECT_EQ(ch1, 2000.0);
}

TEST(TemperatureConversion, TwelveBitTwosComplementInSixteenthDegrees) {
    const std::pair<int, float> cases[] = {{0x1900, 25.0f},     {0xFF00, -1.0f},
                                           {0x7FF0, 127.9375f}, {0x8000, -128.0f},
                                           {0xFFF0, -0.0625f},  {0x190F, 25.0f}};
    for (const auto& [word, celsius] : cases)
        EXPECT_EQ(convert_to_celsius(word), celsius) << std::hex << word;
}

TEST_F(Ads7142Test, ProbeFindsOnlyTheDevicesThatAnswer) {
    const auto printed = capture_output([] {
        EXPECT_EQ(check_i2c_device(1, 0x1d), 0);
        EXPECT_EQ(check_i2c_device(1, 0x50), -1);
        EXPECT_EQ(check_i2c_device(7, 0x1d), -1);  // no /dev/i2c-7
    });
    EXPECT_EQ(printed.out + printed.err, "");
}

}  // namespace
