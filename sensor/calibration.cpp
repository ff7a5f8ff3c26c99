// One calibration run of a (frequency, MCS) combination: tune, step through the power
// levels, measure each with the fixed read cycle, and merge the results into the band's
// calibration file. The radio is driven through g_calibration_tx (the MP session) when it
// is set, else through the transmitter service's configure command.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "calibration-run.h"
#include "calibration-safety.h"
#include "frequency-band.h"
#include "i2c-monitor.h"
#include "service-command.h"

CalibrationTx* g_calibration_tx = nullptr;

namespace {

constexpr int kFullRunLevels = 60;
constexpr int kReadingsPerLevel = 4;  // the first after a power change is discarded
constexpr useconds_t kSettleAfterPowerUs = 650000;
constexpr useconds_t kPauseBetweenReadingsUs = 100000;
constexpr unsigned kFrequencySettleSeconds = 7;

// The configure command's result counts only as -1 (no shell could be started): its own
// exit status does not count; the service's tools report their errors themselves.

bool is_24_ghz(int frequency_mhz) {
    return frequency_band(frequency_mhz) == FrequencyBand::ghz_2_4;
}

// Band of the mV-to-dBm tables; a frequency in no band reads the 5.8 table.
const char* conversion_band(int frequency_mhz) {
    const char* name = band_table_name(frequency_band(frequency_mhz));
    return name != nullptr ? name : "5.8";
}

int set_frequency(int frequency_mhz) {
    if (g_calibration_tx != nullptr) {
        if (g_calibration_tx->set_frequency(frequency_mhz) != 0) {
            fprintf(stderr, "Failed to set frequency %d MHz\n", frequency_mhz);
            return -1;
        }
        // The MP script waits for the radio itself.
        printf("Set frequency to %d MHz\n", frequency_mhz);
        return 0;
    }
    if (run_configure_vtx("-F", frequency_mhz) == -1) {
        perror("Failed to set frequency");
        return -1;
    }
    printf("Set frequency to %d MHz\n", frequency_mhz);
    puts("Sleeping 7 seconds while frequency changes...");
    sleep(kFrequencySettleSeconds);
    return 0;
}

int apply_level(int level) {
    if (g_calibration_tx != nullptr) {
        if (g_calibration_tx->set_power(level) != 0 || g_calibration_tx->tx_on() != 0)
            return -1;
        return 0;
    }
    return run_configure_vtx("-p", level) == -1 ? -1 : 0;
}

// Readings 2 to 4 of a level into `stored`; returns how many there are.
int take_readings(int fd, int frequency_mhz, int mcs, int level, SensorReading* reading,
                  double stored[]) {
    int count = 0;
    for (int k = 1; k <= kReadingsPerLevel; ++k) {
        printf("Taking reading %d of %d for power level %d...\n", k, kReadingsPerLevel, level);
        if (k > 1)
            usleep(kPauseBetweenReadingsUs);
        if (process_sensor_data(reading, fd, mcs, frequency_mhz) < 0) {
            printf("Reading %d failed, retrying...\n", k);
            usleep(kPauseBetweenReadingsUs);
            if (process_sensor_data(reading, fd, mcs, frequency_mhz) < 0) {
                printf("Reading %d failed again, skipping this reading\n", k);
                continue;
            }
        }
        const double mv = is_24_ghz(frequency_mhz) ? reading->ch0_mv : reading->ch1_mv;
        if (k == 1) {
            printf("Reading %d complete: %.2f mV (skipped)\n", k, mv);
        } else {
            stored[count++] = mv;
            printf("Reading %d complete: %.2f mV (stored)\n", k, mv);
        }
    }
    return count;
}

}  // namespace

int reset_power_to_minimum() {
    if (g_calibration_tx != nullptr) {
        // Both always run: a refused power change must not leave the carrier on.
        const int power = g_calibration_tx->set_power(1);
        const int off = g_calibration_tx->tx_off();
        return power != 0 || off != 0 ? -1 : 0;
    }
    return run_configure_vtx("-p", 1) == -1 ? -1 : 0;
}

int perform_calibration_internal(int fd, int frequency_mhz, int mcs, const int* levels,
                                 int level_count, bool fast) {
    const int count = level_count != 0 ? level_count : kFullRunLevels;
    for (int i = 0; level_count != 0 && i < level_count; ++i) {
        if (levels == nullptr || levels[i] < 1 || levels[i] > kCalibrationLevels) {
            fprintf(stderr, "Error: Invalid power level list for calibration\n");
            return -1;
        }
    }
    printf("Starting %scalibration for frequency %d MHz and MCS %d\n", fast ? "fast " : "",
           frequency_mhz, mcs);
    if (set_frequency(frequency_mhz) != 0)
        return -1;

    // Checked only after tuning, as the operators know it: the radio is already retuned.
    char path[256];
    if (format_calibration_path(frequency_mhz, path, sizeof path) != 0) {
        fprintf(stderr, "Error: Invalid frequency %d MHz\n", frequency_mhz);
        return -1;
    }
    const char* band_tag = calibration_band_tag(frequency_mhz);
    const char* band_name = conversion_band(frequency_mhz);

    ExistingCalibration existing;
    if (load_existing_calibration(path, &existing) != 0)
        return -1;

    CalibrationResult result = {};
    SensorReading reading = {};
    reading.temperature_c = -9999.0f;
    reading.temperature_valid = 0;
    int stop_level = 0;

    for (int i = 1; i <= count; ++i) {
        const int level = level_count != 0 ? levels[i - 1] : i;
        printf("Calibrating power level %d (%d of %d)...\n", level, i, count);
        if (apply_level(level) != 0) {
            perror("Failed to set power level");
            if (g_calibration_tx != nullptr)
                g_calibration_tx->tx_off();
            free_existing_calibration(&existing);
            return -1;
        }
        usleep(kSettleAfterPowerUs);

        double stored[kReadingsPerLevel];
        const int stored_count = take_readings(fd, frequency_mhz, mcs, level, &reading, stored);
        if (g_calibration_tx != nullptr && g_calibration_tx->tx_off() != 0)
            fprintf(stderr, "Warning: failed to stop TX after power level %d\n", level);
        if (stored_count == 0) {
            printf("No valid readings for power level %d, skipping in output\n", level);
            continue;
        }

        double sum = 0.0;
        for (int k = 0; k < stored_count; ++k)
            sum += stored[k];
        const double average = sum / stored_count;
        double converted_mv = 0.0;
        double dbm = 0.0;
        if (read_csv_data_cached(&converted_mv, &dbm, mcs, band_name, average) < 0) {
            printf("Warning: Failed to convert mV to dBm for power level %d\n", level);
            dbm = 0.0;
        }

        // Temperature first: a level both too hot and too strong records the heat.
        if (g_temp_test_flag && reading.temperature_valid &&
            reading.temperature_c > kCalibrationTempLimitC) {
            printf(
                "WARNING: Temperature (%.2f°C) exceeds safety threshold of %.1f°C at power "
                "level %d\n",
                reading.temperature_c, kCalibrationTempLimitC, level);
            puts("Stopping calibration for safety reasons");
            result.measured[level] = true;
            result.mV[level] = kTempStopMarkerMv;
            result.mW[level] = reading.temperature_c;
            stop_level = level;
            break;
        }
        const double mw = custom_exp10(dbm / 10.0);
        result.measured[level] = true;
        result.mV[level] = average;
        result.mW[level] = mw;
        if (dbm > kCalibrationDbmLimit) {
            printf(
                "WARNING: Measured dBm (%.2f) exceeds safety threshold of 31.5 dBm at power "
                "level %d\n",
                dbm, level);
            puts("Stopping calibration for safety reasons");
            stop_level = level;
            break;
        }
        if (reading.temperature_valid) {
            printf(
                "Power 1 level %d: Average mV = %.2f, dBm = %.2f, mW = %.2f (from %d "
                "readings), Temperature = %.2f°C\n",
                level, average, dbm, mw, stored_count, reading.temperature_c);
        } else {
            printf(
                "Power 2 level %d: Average mV = %.2f, dBm = %.2f, mW = %.2f (from %d "
                "readings), Temperature = NA\n",
                level, average, dbm, mw, stored_count);
        }
    }

    if (fast) {
        if (report_missing_anchors(&result, stop_level) > 0) {
            free_existing_calibration(&existing);
            if (reset_power_to_minimum() != 0) {
                perror("Failed to set power level to 1 after fast calibration anchor failure");
            } else {
                puts(
                    "Safety measure: Power level set to 1 (minimum) after fast calibration "
                    "anchor failure");
            }
            return -1;
        }
        estimate_unmeasured_levels(&result, band_tag, band_name, mcs, stop_level);
    }

    const int saved = save_calibration_file(path, mcs, &result, &existing);
    free_existing_calibration(&existing);
    // A file that could not be written fails the run as it stands; the driver's own end
    // (stop_test, or the MP session's pause and quit) takes the radio off the air.
    if (saved != 0)
        return -1;
    if (reset_power_to_minimum() != 0) {
        perror("Failed to set power level to 1 after calibration");
        puts("Warning: Could not set power to minimum level after calibration");
    } else {
        puts("Safety measure: Power level set to 1 (minimum) after calibration");
    }
    return 0;
}

int perform_calibration(int fd, int frequency_mhz, int mcs) {
    return perform_calibration_internal(fd, frequency_mhz, mcs, nullptr, 0, false);
}
