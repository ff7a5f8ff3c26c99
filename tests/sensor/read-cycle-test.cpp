// The read cycle on the simulated board: its bus traffic, every failure with what it
// prints and what it leaves behind, the band choice for channel 1, and its waits.
#include <cstdio>

#include "i2c-monitor.h"
#include "sensor-test-support.h"

namespace {

using board_sim::BusOp;
using board_sim::Transfer;
using board_sim::TransferKind;
using sensor_test::buffer_of;
using sensor_test::capture;
using sensor_test::fault;
using sensor_test::is_open;

// One conversion table per band, each giving a single power whatever the voltage, so that
// a dBm figure says which table converted it.
void write_table(const char* tag, double dbm) {
    const std::string path = std::string("/data/quillon/vtx/") + tag + "_mv_to_dbm.csv";
    FILE* file = std::fopen(path.c_str(), "w");  // lands in the sandbox
    ASSERT_NE(file, nullptr) << path;
    std::fprintf(file, "mV,MCS0,MCS1,MCS2,MCS3,MCS4,MCS5,MCS6,MCS7\n0");
    for (int mcs = 0; mcs < 8; ++mcs)
        std::fprintf(file, ",%g", dbm);
    std::fprintf(file, "\n");
    std::fclose(file);
}

class ReadCycleTest : public sensor_test::BoardTest {
  protected:
    void SetUp() override {
        BoardTest::SetUp();
        write_table("2_4", 2.0);
        write_table("5_1", 5.0);
        write_table("5_8", 8.0);
        init_csv_cache_manager();
    }
    SensorReading reading_{};
};

// A transfer as the check below compares it: reads by their length only.
std::string shape(const Transfer& transfer) {
    if (transfer.kind != TransferKind::kRead)
        return board_sim::describe(transfer);
    char text[48];
    std::snprintf(text, sizeof text, "bus %d 0x%02x read of %zu%s", transfer.bus, transfer.address,
                  transfer.bytes.size(), transfer.ok ? "" : " FAILED");
    return text;
}

TEST_F(ReadCycleTest, FixedCycleTrafficFollowsTheSetUpSequence) {
    board_sim::start_recording();
    ASSERT_EQ(process_sensor_data(&reading_, fd_, 0, 5800), 0);

    std::vector<std::string> expected = {
        "bus 1 0x1d select",         "bus 1 0x1d write 08 17 0a", "bus 1 0x1d write 08 14 01",
        "bus 1 0x1d write 08 17 00", "bus 1 0x1d write 08 28 02", "bus 1 0x1d write 08 24 00",
        "bus 1 0x1d write 08 1c 06", "bus 1 0x1d write 08 20 03", "bus 1 0x48 select",
        "bus 1 0x48 write 00",       "bus 1 0x48 read of 2",      "bus 1 0x1d select",
    };
    for (int sample = 0; sample < 60; ++sample) {
        expected.push_back("bus 1 0x1d write 08 1e 01");
        expected.push_back("bus 1 0x1d write 3b");
        expected.push_back("bus 1 0x1d read of 32");
    }
    std::vector<std::string> seen;
    for (const Transfer& transfer : board_sim::recorded_traffic())
        seen.push_back(shape(transfer));
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(reading_.sample_count, 60);
    EXPECT_EQ(reading_.temperature_valid, 1);
    EXPECT_EQ(reading_.temperature_c, 25.0f);
}

TEST_F(ReadCycleTest, PeaksAreConvertedWithTheRadiosBandAndMcs) {
    board_sim::queue_adc_buffer(buffer_of(0x1000, 0x2000));
    board_sim::queue_adc_buffer(buffer_of(0x0800, 0x4000));
    board_sim::set_temperature_word(0xFF00);
    ASSERT_EQ(process_sensor_data(&reading_, fd_, 3, 5180, 2, 0.0), 0);
    EXPECT_EQ(reading_.ch0_mv, 112.5);  // peak of codes 0x100 and 0x080
    EXPECT_EQ(reading_.ch1_mv, 450.0);  // code 0x400
    EXPECT_EQ(reading_.ch0_dbm, 2.0);   // channel 0 is always the 2.4 table
    EXPECT_EQ(reading_.ch1_dbm, 5.0);
    EXPECT_EQ(reading_.temperature_c, -1.0f);
    EXPECT_EQ(reading_.sample_count, 2);

    // No sequences: nothing sampled, and 0 mV converted.
    reading_.ch0_mv = 99.0;
    ASSERT_EQ(process_sensor_data(&reading_, fd_, 0, 5800, 0, 0.0), 0);
    EXPECT_EQ(board_sim::adc_sequences(), 2);
    EXPECT_EQ(reading_.sample_count, 0);
    EXPECT_EQ(reading_.ch0_mv, 0.0);
    EXPECT_EQ(reading_.ch1_dbm, 8.0);
}

TEST_F(ReadCycleTest, ChannelOneBandFollowsTheFrequency) {
    const struct {
        int frequency_mhz;
        double ch1_dbm;
        bool warns;
    } cases[] = {
        {5000, 5.0, false}, {5599, 5.0, false}, {5600, 8.0, false},
        {5999, 8.0, false}, {2412, 2.0, false}, {2300, 2.0, false},
        {6000, 8.0, true},  {0, 8.0, true},     {-9999, 8.0, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.frequency_mhz);
        const auto printed = capture(
            [&] { EXPECT_EQ(process_sensor_data(&reading_, fd_, 0, c.frequency_mhz, 1, 0.0), 0); });
        EXPECT_EQ(reading_.ch0_dbm, 2.0);
        EXPECT_EQ(reading_.ch1_dbm, c.ch1_dbm);
        EXPECT_EQ(printed.err, c.warns ? "Warning: Invalid frequency " +
                                             std::to_string(c.frequency_mhz) + " MHz\n"
                                       : "");
    }
}

TEST_F(ReadCycleTest, ConverterFailuresEndTheCycleWithTheirStep) {
    const std::string io = ": Input/output error\n";
    const struct {
        board_sim::Fault fault;
        std::string out, err;
        bool closes;
        int samples_done;
    } cases[] = {
        {fault(BusOp::kSelect, 0x1d, 1), "",
         "Failed to acquire bus access and/or talk to ADS7142: Device or resource busy\n", true, 0},
        {fault(BusOp::kSelect, 0x1d, 2), "",
         "Failed to acquire bus access and/or talk to ADS7142: Device or resource busy\n", true, 0},
        {fault(BusOp::kWrite, 0x1d, 1), "Failed to reset device, retrying in 5 seconds...\n",
         "Failed to write to the i2c bus" + io, false, 0},
        {fault(BusOp::kWrite, 0x1d, 3), "Failed to reset device, retrying in 5 seconds...\n",
         "Failed to write to the i2c bus" + io, false, 0},
        {fault(BusOp::kWrite, 0x1d, 4),
         "Failed to configure DOUT_FORMAT_CFG, retrying in 5 seconds...\n",
         "Failed to write to the i2c bus" + io, false, 0},
        {fault(BusOp::kWrite, 0x1d, 5),
         "Failed to configure CHANNEL_INPUT_CFG, retrying in 5 seconds...\n",
         "Failed to write to the i2c bus" + io, false, 0},
        {fault(BusOp::kWrite, 0x1d, 6),
         "Failed to configure OPMODE_SEL, retrying in 5 seconds...\n",
         "Failed to write to the i2c bus" + io, false, 0},
        {fault(BusOp::kWrite, 0x1d, 7),
         "Failed to configure AUTO_SEQ_CHEN, retrying in 5 seconds...\n",
         "Failed to write to the i2c bus" + io, false, 0},
        // Per sequence: the start write, then the 0x3B command, then the read.
        {fault(BusOp::kWrite, 0x1d, 8 + 2 * 3),
         "Failed to start the conversion sequence, retrying in 5 seconds...\n",
         "Failed to write to the i2c bus" + io, false, 3},
        {fault(BusOp::kWrite, 0x1d, 9 + 2 * 5),
         "Failed to read data buffer entries, retrying in 5 seconds...\n",
         "Failed to send read command to the i2c bus" + io, false, 5},
        {fault(BusOp::kRead, 0x1d, 1 + 7),
         "Failed to read data buffer entries, retrying in 5 seconds...\n",
         "Failed to read from the i2c bus" + io, false, 7},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        const auto& c = cases[i];
        SCOPED_TRACE(i);
        if (!is_open(fd_))
            fd_ = open("/dev/i2c-1", O_RDWR);
        board_sim::queue_adc_buffer(buffer_of(0x1000, 0x2000));
        board_sim::set_faults({c.fault});
        const auto printed =
            capture([&] { EXPECT_EQ(process_sensor_data(&reading_, fd_, 0, 5800), -1); });
        EXPECT_EQ(printed.out, c.out);
        EXPECT_EQ(printed.err, c.err);
        EXPECT_EQ(is_open(fd_), !c.closes);
        EXPECT_EQ(reading_.sample_count, c.samples_done);
        EXPECT_EQ(reading_.ch0_mv, c.samples_done ? 112.5 : 0.0);
        EXPECT_EQ(reading_.ch0_dbm, 0.0);
        EXPECT_EQ(reading_.ch1_dbm, 0.0);
        board_sim::clear_faults();
        board_sim::clear_adc_queue();
    }
}

TEST_F(ReadCycleTest, TemperatureFailuresNeverFailTheCycle) {
    board_sim::set_temperature_word(0x1900);
    ASSERT_EQ(process_sensor_data(&reading_, fd_, 0, 5800, 1, 0.0), 0);
    ASSERT_EQ(reading_.temperature_c, 25.0f);

    // After a good select a bus error keeps the last known temperature.
    board_sim::set_temperature_word(0x3200);
    const struct {
        board_sim::Fault fault;
        std::string err;
    } keeping[] = {
        {fault(BusOp::kWrite, 0x48, 1), "Failed to write to the i2c bus: Input/output error\n"},
        {fault(BusOp::kRead, 0x48, 1), "Failed to read from the i2c bus: Input/output error\n"},
    };
    for (const auto& c : keeping) {
        SCOPED_TRACE(c.err);
        board_sim::set_faults({c.fault});
        const auto printed =
            capture([&] { EXPECT_EQ(process_sensor_data(&reading_, fd_, 0, 5800, 1, 0.0), 0); });
        EXPECT_EQ(printed.out, "Failed to read temperature data.\n");
        EXPECT_EQ(printed.err, c.err);
        EXPECT_EQ(reading_.temperature_valid, 1);
        EXPECT_EQ(reading_.temperature_c, 25.0f);
    }
    board_sim::set_faults({fault(BusOp::kRead, 0x48, 1, true)});  // one byte of two
    auto printed = capture([&] { process_sensor_data(&reading_, fd_, 0, 5800, 1, 0.0); });
    EXPECT_EQ(printed.out, "Failed to read temperature data.\n");
    EXPECT_EQ(reading_.temperature_c, 25.0f);

    // A sensor that cannot be selected reads as not there, on every cycle.
    board_sim::Fault unselectable = fault(BusOp::kSelect, 0x48, 1);
    unselectable.count = 0;
    board_sim::set_faults({unselectable});
    for (int cycle = 0; cycle < 2; ++cycle) {
        printed =
            capture([&] { EXPECT_EQ(process_sensor_data(&reading_, fd_, 0, 5800, 1, 0.0), 0); });
        EXPECT_EQ(printed.out, "Temperature sensor not found, setting temperature to NA.\n");
        EXPECT_EQ(reading_.temperature_valid, 0);
        EXPECT_EQ(reading_.sample_count, 1);
    }
}

TEST_F(ReadCycleTest, ConversionFailuresKeepTheMeasuredVoltages) {
    board_sim::queue_adc_buffer(buffer_of(0x1000, 0x2000));
    auto printed =
        capture([&] { EXPECT_EQ(process_sensor_data(&reading_, fd_, 8, 5800, 1, 0.0), -1); });
    EXPECT_EQ(printed.out, "Failed to read CSV data for channel 0\n");
    EXPECT_EQ(reading_.ch0_mv, 112.5);
    EXPECT_EQ(reading_.ch1_mv, 225.0);
    EXPECT_EQ(reading_.ch0_dbm, 0.0);
    EXPECT_EQ(reading_.sample_count, 1);

    ASSERT_EQ(std::remove("/data/quillon/vtx/5_1_mv_to_dbm.csv"), 0);
    printed = capture([&] { EXPECT_EQ(process_sensor_data(&reading_, fd_, 0, 5180, 1, 0.0), -1); });
    EXPECT_EQ(printed.out, "Failed to read CSV data for channel 1\n");
    EXPECT_EQ(reading_.ch0_dbm, 0.0) << "dBm figures are stored only together";
    EXPECT_EQ(reading_.ch1_dbm, 0.0);
}

TEST_F(ReadCycleTest, FixedCyclePausesSixtyMillisecondsOnTheVirtualClock) {
    const uint64_t waited = board_sim::wait_time_ns();
    ASSERT_EQ(process_sensor_data(&reading_, fd_, 0, 5800), 0);
    EXPECT_EQ(board_sim::wait_time_ns() - waited, 60u * 1000000u);
}

}  // namespace
