// orca-vtx-i2c-monitor: RF power monitor and calibration tool of the video-transmitter board.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "orca-vtx-i2c-monitor.h"

int main(int argc, char* argv[]) {
    const RunMode mode = parse_arguments(argc, argv);
    if (mode == RUN_MODE_ERROR)
        return 1;
    if (mode == RUN_MODE_HELP)
        return 0;

    // The bus descriptor belongs to main for the whole run.
    int fd = open(I2C_DEVICE, O_RDWR);
    if (fd < 0) {
        perror("Failed to open the i2c bus");
        return 1;
    }
    close(fd);
    return 0;
}
