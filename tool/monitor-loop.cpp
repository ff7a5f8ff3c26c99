// The monitor: snapshot the radio state from the status pipe, read the detector, print one
// line, run the requested power search once, pause, repeat.
#include "monitor-loop.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "i2c-monitor.h"
#include "orca-vtx-i2c-monitor.h"
#include "service-command.h"
#include "vtx_pipe.h"

namespace {

constexpr int kInitialPowerIndex = 1;
constexpr unsigned kSensorRetrySeconds = 5;
constexpr useconds_t kPauseBetweenLinesUs = 500000;

// The line's band label follows the pipe's frequency with its own boundary at 5500 MHz,
// which is not the conversion's: 5500-5599 MHz is labelled 5.8 but converted with 5.1.
const char* band_label(int frequency_mhz) {
    return frequency_mhz <= 5499 ? "5.1" : "5.8";
}

}  // namespace

int run_monitor(int fd, SensorReading* reading) {
    if (adjust_power) {
        // The search starts from the lowest power whatever the radio was left at.
        printf("Setting initial power to %d...\n", kInitialPowerIndex);
        // Only a shell that cannot start is an error; the command's own status is not ours.
        if (run_configure_vtx("-p", kInitialPowerIndex) == -1) {
            perror("Failed to set initial power using orca-configure-vtx");
            return 1;
        }
    }

    for (;;) {
        // One load of each value per pass; a mix of two pipe records is accepted.
        const int frequency_mhz = g_frequency.load(std::memory_order_relaxed);
        const int power_index = g_power_idx.load(std::memory_order_relaxed);
        const int mcs = g_mcs.load(std::memory_order_relaxed);
        g_global_frequency = frequency_mhz;
        g_global_power_idx = power_index;
        g_global_mcs = mcs;
        if (Debug_Prints)
            printf("get_vtx_config - MCS: %d, Frequency: %d MHz, Power Index: %d\n", mcs,
                   frequency_mhz, power_index);
        // The search starts from the index the radio reports.
        if (adjust_power)
            current_power = power_index;

        if (process_sensor_data(reading, fd, mcs, frequency_mhz, Average_Sampling,
                                PAUSE_BETWEEN_PRINTS) < 0) {
            fprintf(stderr, "Error processing sensor data\n");
            sleep(kSensorRetrySeconds);
            continue;
        }
        printf(
            "2.4 GHz (CH0): %.2f dBm (%.2f mV)   %s GHz (CH1): %.2f dBm (%.2f mV)   "
            "Temperature (C): %.2f   Freq: %d MHz   MCS: %d   Power: %d\n",
            reading->ch0_dbm, reading->ch0_mv, band_label(frequency_mhz), reading->ch1_dbm,
            reading->ch1_mv, reading->temperature_c, frequency_mhz, mcs, power_index);

        // The search clears adjust_power on every way out, so it runs once.
        if (adjust_power) {
            SensorReading scratch = *reading;
            set_dBm(fd, &scratch, &adjust_power, &current_power, desired_dBm,
                    static_cast<double>(frequency_mhz));
        }
        usleep(kPauseBetweenLinesUs);
    }
}
