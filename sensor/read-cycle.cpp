// One read cycle of the power detector: reset and configure the ADS7142, read the board
// temperature, take the conversion sequences while keeping each channel's peak, and turn
// both peaks into dBm with the conversion table of their band.
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "frequency-band.h"
#include "i2c-monitor.h"

namespace {

constexpr int kAdcAddress = 0x1D;
constexpr int kTemperatureAddress = 0x48;
constexpr uint8_t kTemperaturePointer = 0x00;
constexpr uint8_t kStartSequence = 0x1E;

constexpr int kFixedSamples = 60;
constexpr double kFixedPauseSeconds = 0.001;
// About 68 years: fits a time_t everywhere, and no operator waits longer for a line.
constexpr double kLongestPauseSeconds = INT32_MAX;

// Closes the bus but keeps its number taken. The caller goes on using `fd` (the monitor
// retries the read cycle on it), so the number must not go to the next descriptor that
// anyone in the process opens: the status pipe's reconnecting socket would then get the
// bus ioctl and be closed under it. dup3 closes the bus and puts in its place in one step
// an O_PATH descriptor, on which ioctl, read and write fail with EBADF as on a closed one.
void close_keeping_number(int fd) {
    const int placeholder = open("/", O_PATH | O_CLOEXEC);
    if (placeholder < 0) {
        close(fd);
        return;
    }
    if (placeholder == fd)
        return;  // it was not open, and now it is held
    if (dup3(placeholder, fd, O_CLOEXEC) < 0)
        close(fd);
    close(placeholder);
}

// Selecting the converter fails only when the bus itself is gone: the descriptor is closed
// so that the caller reopens it.
bool select_adc(int fd) {
    if (ioctl(fd, I2C_SLAVE, kAdcAddress) < 0) {
        perror("Failed to acquire bus access and/or talk to ADS7142");
        close_keeping_number(fd);
        return false;
    }
    return true;
}

// The channel-1 (5 GHz detector) table for a frequency. Unknown frequencies fall back to
// 5.8 with a warning rather than fail the reading.
const char* channel1_band(int frequency_mhz) {
    const char* name = band_table_name(frequency_band(frequency_mhz));
    if (name != nullptr)
        return name;
    fprintf(stderr, "Warning: Invalid frequency %d MHz\n", frequency_mhz);
    return "5.8";
}

void read_temperature(int fd, SensorReading* reading) {
    if (ioctl(fd, I2C_SLAVE, kTemperatureAddress) < 0) {
        puts("Temperature sensor not found, setting temperature to NA.");
        reading->temperature_valid = 0;
        return;
    }
    const int raw = read_word_data(fd, kTemperaturePointer);
    if (raw < 0) {
        // A momentary bus error keeps the last known temperature.
        puts("Failed to read temperature data.");
        return;
    }
    reading->temperature_c = convert_to_celsius(raw);
    reading->temperature_valid = 1;
}

// The pause after each sequence, in whole microseconds (the fraction is dropped). An absurd
// pause is cut to the longest one rather than overflow the conversion and become none.
void pause_for(double seconds) {
    const double microseconds = std::trunc(seconds * 1e6);
    if (!(microseconds >= 1.0))
        return;
    timespec pause{};
    if (microseconds >= kLongestPauseSeconds * 1e6) {
        pause.tv_sec = static_cast<time_t>(kLongestPauseSeconds);
    } else {
        const auto whole = static_cast<long long>(microseconds);
        pause.tv_sec = static_cast<time_t>(whole / 1000000);
        pause.tv_nsec = static_cast<long>(whole % 1000000) * 1000;
    }
    nanosleep(&pause, nullptr);
}

}  // namespace

int process_sensor_data(SensorReading* reading, int fd, int mcs, int frequency_mhz, int samples,
                        double pause_seconds) {
    reading->ch0_mv = 0.0;
    reading->ch1_mv = 0.0;
    reading->ch0_dbm = 0.0;
    reading->ch1_dbm = 0.0;
    reading->sample_count = 0;

    if (!select_adc(fd))
        return -1;
    // The converter is reset and configured afresh on every cycle, so no state of an
    // earlier cycle can linger in it.
    if (reset_device(fd, 0) != 0) {
        puts("Failed to reset device, retrying in 5 seconds...");
        return -1;
    }
    static const struct {
        uint8_t reg;
        uint8_t value;
        const char* failure;
    } kConfiguration[] = {
        {DOUT_FORMAT_CFG, 0x02, "Failed to configure DOUT_FORMAT_CFG, retrying in 5 seconds..."},
        {CHANNEL_INPUT_CFG, 0x00,
         "Failed to configure CHANNEL_INPUT_CFG, retrying in 5 seconds..."},
        {OPMODE_SEL, 0x06, "Failed to configure OPMODE_SEL, retrying in 5 seconds..."},
        {AUTO_SEQ_CHEN, 0x03, "Failed to configure AUTO_SEQ_CHEN, retrying in 5 seconds..."},
    };
    for (const auto& step : kConfiguration) {
        if (write_register(fd, step.reg, step.value) != 0) {
            puts(step.failure);
            return -1;
        }
    }

    read_temperature(fd, reading);
    if (!select_adc(fd))
        return -1;

    for (int i = 0; i < samples; ++i) {
        if (write_register(fd, kStartSequence, 0x01) != 0) {
            puts("Failed to start the conversion sequence, retrying in 5 seconds...");
            return -1;
        }
        if (read_all_data_buffer_entries_by_channel(fd, &reading->ch0_mv, &reading->ch1_mv) != 0) {
            puts("Failed to read data buffer entries, retrying in 5 seconds...");
            return -1;
        }
        ++reading->sample_count;
        pause_for(pause_seconds);
    }

    // Channel 0 is the 2.4 GHz detector whatever the radio's band; both use the same MCS.
    double converted_mv = 0.0;
    double ch0_dbm = 0.0;
    if (read_csv_data_cached(&converted_mv, &ch0_dbm, mcs, "2.4", reading->ch0_mv) < 0) {
        puts("Failed to read CSV data for channel 0");
        return -1;
    }
    double ch1_dbm = 0.0;
    if (read_csv_data_cached(&converted_mv, &ch1_dbm, mcs, channel1_band(frequency_mhz),
                             reading->ch1_mv) < 0) {
        puts("Failed to read CSV data for channel 1");
        return -1;
    }
    reading->ch0_dbm = ch0_dbm;
    reading->ch1_dbm = ch1_dbm;
    return 0;
}

int process_sensor_data(SensorReading* reading, int fd, int mcs, int frequency_mhz) {
    return process_sensor_data(reading, fd, mcs, frequency_mhz, kFixedSamples, kFixedPauseSeconds);
}
