// The calibration pass over frequency × MCS. A failed combination is reported and the pass
// goes on with the next one; there is no retry and no abort.
#include "calibration-driver.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "fjord_pipe.h"
#include "i2c-monitor.h"
#include "mp_session.h"
#include "service-command.h"

namespace {

constexpr unsigned kServiceSettleUs = 4000000;  // the service retunes in the background
constexpr unsigned kAfterRunSeconds = 1;
constexpr size_t kMpCommandSize = 64;
constexpr const char* kRule = "========================================";

bool is_fast_capable(int frequency_mhz, int mcs) {
    const bool frequency = frequency_mhz == 2412 || frequency_mhz == 5180 || frequency_mhz == 5805;
    return frequency && (mcs == 0 || mcs == 3);
}

int send_mp_setting(const char* name, int value) {
    char command[kMpCommandSize];
    snprintf(command, sizeof command, "%s %d", name, value);
    return mp_command(command);
}

int run_method(int fd, int frequency_mhz, int mcs, bool fast) {
    return fast ? perform_fast_calibration(fd, frequency_mhz, mcs)
                : perform_calibration(fd, frequency_mhz, mcs);
}

void report_failure(int frequency_mhz, int mcs, int result) {
    if (result != 0)
        fprintf(stderr, "Calibration failed for Frequency: %d MHz, MCS: %d\n", frequency_mhz, mcs);
}

void calibrate_with_mp(int fd, int frequency_mhz, int mcs, bool fast) {
    printf("Setting frequency to %d MHz and MCS to %d...\n", frequency_mhz, mcs);
    int result = send_mp_setting("freq", frequency_mhz);
    if (result == 0)
        result = send_mp_setting("mcs", mcs);
    if (result != 0) {
        fprintf(stderr,
                "Calibration failed for Frequency: %d MHz, MCS: %d (MP rejected the setting)\n",
                frequency_mhz, mcs);
        return;
    }
    report_failure(frequency_mhz, mcs, run_method(fd, frequency_mhz, mcs, fast));
}

void calibrate_with_service(int fd, int frequency_mhz, int mcs, bool fast) {
    printf("Setting frequency to %d MHz...\n", frequency_mhz);
    if (run_configure_vtx("-F", frequency_mhz) == -1) {
        perror("Failed to set frequency using orca-configure-vtx");
        return;
    }
    printf("Setting MCS to %d...\n", mcs);
    if (run_configure_vtx("-m", mcs) == -1) {
        perror("Failed to set MCS using orca-configure-vtx");
        return;
    }
    usleep(kServiceSettleUs);
    report_failure(frequency_mhz, mcs, run_method(fd, frequency_mhz, mcs, fast));
    sleep(kAfterRunSeconds);
}

void finish() {
    pipe_client_close_all();
    puts("All calibrations completed!");
    fflush(stdout);
}

}  // namespace

int run_calibration(int fd, RunMode mode) {
    const bool fast_mode = mode == RUN_MODE_FAST_CALIBRATE;
    const CalibrationParams& request = g_calib_params;
    printf("Running in calibration mode with %d frequencies and %d MCS values\n",
           request.num_frequencies, request.num_mcs);
    if (fast_mode) {
        puts(
            "Fast calibration supported for: 2412/5180/5805 MHz and MCS 0/3 (anchors: 10, 35, "
            "45, 50, 56, 60)");
    }
    printf("Transmit source: %s\n",
           g_mp_mode ? "Realtek MP (rtw_mp_test.sh)" : "orca-vtx (orca-vtx -t)");
    puts("Will perform calibration for the following combinations:");
    for (int f = 0; f < request.num_frequencies; ++f) {
        for (int m = 0; m < request.num_mcs; ++m) {
            const int frequency = request.frequencies[f];
            const int mcs = request.mcs[m];
            printf("Frequency: %d MHz, MCS: %d (%s)\n", frequency, mcs,
                   fast_mode && is_fast_capable(frequency, mcs) ? "fast" : "full");
        }
    }

    if (g_mp_mode && mp_start(request.frequencies[0], request.mcs[0]) != 0)
        return 1;

    for (int f = 0; f < request.num_frequencies; ++f) {
        for (int m = 0; m < request.num_mcs; ++m) {
            const int frequency = request.frequencies[f];
            const int mcs = request.mcs[m];
            const bool fast = fast_mode && is_fast_capable(frequency, mcs);
            printf("\n%s\n", kRule);
            if (fast_mode && !fast) {
                fflush(stdout);  // the warning belongs between the two rules
                fprintf(stderr,
                        "Warning: Fast calibration is not supported for %d MHz MCS %d; using "
                        "full calibration instead.\n",
                        frequency, mcs);
            }
            printf("Starting %s calibration for Frequency: %d MHz, MCS: %d\n",
                   fast ? "fast" : "full", frequency, mcs);
            printf("%s\n", kRule);
            if (g_mp_mode)
                calibrate_with_mp(fd, frequency, mcs, fast);
            else
                calibrate_with_service(fd, frequency, mcs, fast);
        }
    }

    if (g_mp_mode) {
        g_calibration_tx = nullptr;
        mp_stop();
    } else {
        fflush(stdout);
        if (run_shell_command("orca-send-command vtx_latency stop_test 1") != 0)
            fprintf(stderr, "Warning: Failed to stop vtx_latency test\n");
    }
    finish();
    return 0;
}
