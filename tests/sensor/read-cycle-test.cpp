// The read cycle on the simulated board: its bus traffic, every failure with what it
// prints and what it leaves behind, the band choice for channel 1, and its waits.
#include <cstdio>

#include "board_test.h"
#include "i2c-monitor.h"

namespace {

using board_sim::BusOp;
using board_sim::Transfer;
using board_sim::TransferKind;
using orca_test::buffer_of;
using orca_test::capture_output;
using orca_test::is_open;

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

class ReadCycleTest : public orca_test::BoardTest {
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

TEST_F(ReadCycleTest, FixedCycleFollowsTheSetUpSequenceAndPausesSixtyMilliseconds) {
    const uint64_t waited = board_sim::wait_time_ns();
    board_sim::start_recording();
    ASSERT_EQ(process_sensor_data(&reading_, fd_, 0, 5800), 0);
    EXPECT_EQ(board_sim::wait_time_ns() - waited, 60u * 1000000u);

    std::vector<std::string> expected = {
        "0x1d select",         "0x1d write 08 17 0a", "0x1d write 08 14 01", "0x1d write 08 17 00",
        "0x1d write 08 28 02", "0x1d write 08 24 00", "0x1d write 08 1c 06", "0x1d write 08 20 03",
        "0x48 select",         "0x48 write 00",       "0x48 read of 2",      "0x1d select",
    };
    for (int sample = 0; sample < 60; ++sample)
        expected.insert(expected.end(),
                        {"0x1d write 08 1e 01", "0x1d write 3b", "0x1d read of 32"});
    std::vector<std::string> seen;  // without the bus number; reads by their length only
    for (Transfer t : board_sim::recorded_traffic()) {
        const bool read = t.kind == TransferKind::kRead;
        const std::string length = " of " + std::to_string(t.bytes.size());
        if (read)
            t.bytes.clear();
        seen.push_back(board_sim::describe(t).substr(6) + (read ? length : ""));
    }
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(reading_.sample_count, 60);
    EXPECT_EQ(reading_.temperature_valid, 1);
    EXPECT_EQ(reading_.temperature_c, 25.0f);
}

TEST_F(ReadCycleTest, PauseIsWholeMicrosecondsAfterEachSequence) {
    const struct {
        double pause_seconds;
        uint64_t each_ns;
    } cases[] = {
        {2.9e-6, 2000},
        {5e-7, 0},
        // Far beyond any clock: the longest pause, never none.
        {1e14, 2147483647ull * 1000000000ull},
    };
    for (const auto& c : cases) {
        const uint64_t waited = board_sim::wait_time_ns();
        ASSERT_EQ(process_sensor_data(&reading_, fd_, 0, 5800, 2, c.pause_seconds), 0);
        EXPECT_EQ(board_sim::wait_time_ns() - waited, 2 * c.each_ns) << c.pause_seconds;
    }
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
}

TEST_F(ReadCycleTest, ChannelOneBandFollowsTheFrequency) {
    const struct {
        int frequency_mhz;
        double ch1_dbm;
        bool warns;
    } cases[] = {
        {5000, 5.0, false}, {5599, 5.0, false}, {5600, 8.0, false}, {5999, 8.0, false},
        {2300, 2.0, false}, {2599, 2.0, false}, {6000, 8.0, true},  {-9999, 8.0, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.frequency_mhz);
        const auto printed = capture_output(
            [&] { EXPECT_EQ(process_sensor_data(&reading_, fd_, 0, c.frequency_mhz, 1, 0.0), 0); });
        EXPECT_EQ(reading_.ch0_dbm, 2.0);
        EXPECT_EQ(reading_.ch1_dbm, c.ch1_dbm);
        EXPECT_EQ(printed.err, c.warns ? "Warning: Invalid frequency " +
                                             std::to_string(c.frequency_mhz) + " MHz\n"
                                       : "");
    }
}

TEST_F(ReadCycleTest, ConverterFailuresEndTheCycleWithTheirStep) {
    const char* const select = "Failed to acquire bus access and/or talk to ADS7142";
    const char* const write = "Failed to write to the i2c bus";
    const struct {
        const char* fault;
        const char* err;
        const char* step;  // of the "retrying in 5 seconds" line; none for a failed select
        int samples_done;
    } cases[] = {
        {"select:0x1d:1", select, nullptr, 0},
        {"select:0x1d:2", select, nullptr, 0},
        {"write:0x1d:reg=0x17:1", write, "reset device", 0},  // unlocking WKEY
        {"write:0x1d:reg=0x14:1", write, "reset device", 0},
        {"write:0x1d:reg=0x17:2", write, "reset device", 0},  // locking it again
        {"write:0x1d:reg=0x28:1", write, "configure DOUT_FORMAT_CFG", 0},
        {"write:0x1d:reg=0x24:1", write, "configure CHANNEL_INPUT_CFG", 0},
        {"write:0x1d:reg=0x1c:1", write, "configure OPMODE_SEL", 0},
        {"write:0x1d:reg=0x20:1", write, "configure AUTO_SEQ_CHEN", 0},
        {"write:0x1d:reg=0x1e:4", write, "start the conversion sequence", 3},
        // The buffer command names no register: it is the 19th write, after the seven of
        // the set-up and five pairs of start and command.
        {"write:0x1d:19", "Failed to send read command to the i2c bus", "read data buffer entries",
         5},
        {"read:0x1d:8", "Failed to read from the i2c bus", "read data buffer entries", 7},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fault);
        if (!is_open(fd_))
            fd_ = open("/dev/i2c-1", O_RDWR);
        board_sim::queue_adc_buffer(buffer_of(0x1000, 0x2000));
        ASSERT_EQ(board_sim::set_faults(c.fault), 0);
        reading_.ch0_mv = reading_.ch0_dbm = reading_.ch1_dbm = reading_.sample_count = 99;
        const auto printed =
            capture_output([&] { EXPECT_EQ(process_sensor_data(&reading_, fd_, 0, 5800), -1); });
        const bool closes = c.step == nullptr;
        EXPECT_EQ(
            printed.out,
            closes ? "" : "Failed to " + std::string(c.step) + ", retrying in 5 seconds...\n");
        EXPECT_EQ(printed.err, c.err + std::string(closes ? ": Device or resource busy\n"
                                                          : ": Input/output error\n"));
        EXPECT_EQ(is_open(fd_), !closes);
        if (closes) {
            // The number stays taken: whatever is opened next cannot get the bus's number.
            const int next = open("/dev/null", O_RDONLY);
            EXPECT_NE(next, fd_);
            close(next);
        }
        EXPECT_EQ(reading_.sample_count, c.samples_done);
        EXPECT_EQ(reading_.ch0_mv, c.samples_done ? 112.5 : 0.0);
        EXPECT_EQ(reading_.ch0_dbm, 0.0);
        EXPECT_EQ(reading_.ch1_dbm, 0.0);
        board_sim::clear_faults();
        board_sim::clear_adc_queue();
    }
}

TEST_F(ReadCycleTest, TemperatureFailuresNeverFailTheCycle) {
    ASSERT_EQ(process_sensor_data(&reading_, fd_, 0, 5800, 1, 0.0), 0);
    ASSERT_EQ(reading_.temperature_c, 25.0f);

    // After a good select a bus error, or one byte of two, keeps the last known temperature;
    // a sensor that cannot be selected reads as not there, on every cycle.
    board_sim::set_temperature_word(0x3200);
    const std::string io = ": Input/output error\n", lost = "Failed to read temperature data.\n";
    const struct {
        board_sim::Fault fault;
        std::string out, err;
        int valid;
    } cases[] = {
        {{BusOp::kWrite, 0x48}, lost, "Failed to write to the i2c bus" + io, 1},
        {{BusOp::kRead, 0x48}, lost, "Failed to read from the i2c bus" + io, 1},
        {{BusOp::kRead, 0x48, 1, 1, true}, lost, "Failed to read from the i2c bus: ", 1},
        {{BusOp::kSelect, 0x48, 1, 0},
         "Temperature sensor not found, setting temperature to NA.\n",
         "",
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.err);
        for (int cycle = 0; cycle < 2; ++cycle) {
            board_sim::set_faults({c.fault});
            const auto printed = capture_output(
                [&] { EXPECT_EQ(process_sensor_data(&reading_, fd_, 0, 5800, 1, 0.0), 0); });
            EXPECT_EQ(printed.out, c.out);
            EXPECT_EQ(printed.err.rfind(c.err, 0), 0u) << printed.err;
            EXPECT_EQ(reading_.temperature_valid, c.valid);
            EXPECT_EQ(reading_.sample_count, 1);
            if (c.valid) {
                EXPECT_EQ(reading_.temperature_c, 25.0f);
            }
        }
    }
}

TEST_F(ReadCycleTest, ConversionFailuresKeepTheMeasuredVoltages) {
    board_sim::queue_adc_buffer(buffer_of(0x1000, 0x2000));
    auto printed = capture_output(
        [&] { EXPECT_EQ(process_sensor_data(&reading_, fd_, 8, 5800, 1, 0.0), -1); });
    EXPECT_EQ(printed.out, "Failed to read CSV data for channel 0\n");
    EXPECT_EQ(reading_.ch0_mv, 112.5);
    EXPECT_EQ(reading_.ch1_mv, 225.0);
    EXPECT_EQ(reading_.ch0_dbm, 0.0);
    EXPECT_EQ(reading_.sample_count, 1);

    ASSERT_EQ(std::remove("/data/quillon/vtx/5_1_mv_to_dbm.csv"), 0);
    printed = capture_output(
        [&] { EXPECT_EQ(process_sensor_data(&reading_, fd_, 0, 5180, 1, 0.0), -1); });
    EXPECT_EQ(printed.out, "Failed to read CSV data for channel 1\n");
    EXPECT_EQ(reading_.ch0_dbm, 0.0) << "dBm figures are stored only together";
    EXPECT_EQ(reading_.ch1_dbm, 0.0);
}

}  // namespace
