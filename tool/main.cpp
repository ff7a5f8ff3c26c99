// orca-vtx-i2c-monitor: RF power monitor and calibration tool of the video-transmitter board.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "calibration-driver.h"
#include "i2c-monitor.h"
#include "monitor-loop.h"
#include "orca-vtx-i2c-monitor.h"
#include "vtx_pipe.h"

namespace {

// A descriptor 0, 1 or 2 that was closed when we were started would be handed to the next
// open: the bus, and every printed line would go to the selected chip. Each closed one is
// held open on /dev/null instead. False when /dev/null cannot be opened.
bool hold_standard_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) != -1 || errno != EBADF)
            continue;
        // The lower ones are open by now, so this takes exactly `fd`.
        const int null = open("/dev/null", O_RDWR);
        if (null < 0)
            return false;
        if (null != fd) {
            dup2(null, fd);
            close(null);
        }
    }
    return true;
}

// What each run mode does once the bus and the status pipe are open. The result is the
// process's exit status; the bus is closed by the caller.
int run_mode(RunMode mode, int fd, SensorReading* reading) {
    switch (mode) {
        case RUN_MODE_MONITOR:
            return run_monitor(fd, reading);
        case RUN_MODE_CALIBRATE:
        case RUN_MODE_FAST_CALIBRATE:
            return run_calibration(fd, mode);
        default:
            return 1;
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    if (!hold_standard_descriptors())
        return 1;
    // Operators run the monitor through tee or into a log: every line leaves as printed.
    setvbuf(stdout, nullptr, _IOLBF, 0);

    const RunMode mode = parse_arguments(argc, argv);
    if (mode == RUN_MODE_ERROR)
        return 1;
    if (mode == RUN_MODE_HELP)
        return 0;

    // One record for the whole run; the temperature reads as unknown until measured.
    SensorReading reading = {};
    reading.temperature_c = -9999.0f;

    // The bus descriptor belongs to main for the whole run.
    const int fd = open(I2C_DEVICE, O_RDWR);
    if (fd < 0) {
        perror("Failed to open the i2c bus");
        return 1;
    }
    // An MP calibration drives the radio itself and never asks the service for its state.
    if (!g_mp_mode && init_vtx_pipe() < 0) {
        fprintf(stderr, "Failed to initialize VTX pipe\n");
        close(fd);
        return 1;
    }
    const int status = run_mode(mode, fd, &reading);
    close(fd);
    return status;
}
