// A short read session on the simulated board for scripts/demo: it steps the radio
// through a few power indices with the service's configure command and prints one sensor
// reading per step, as the monitor loop will.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>

#include "i2c-monitor.h"

int main() {
    const int fd = open("/dev/i2c-1", O_RDWR);
    if (fd < 0) {
        perror("Failed to open the i2c bus");
        return 1;
    }
    const int frequency_mhz = 5805;
    const int mcs = 0;
    char command[256];
    snprintf(command, sizeof command, "orca-configure-vtx -F %d -m %d", frequency_mhz, mcs);
    if (system(command) != 0)
        fprintf(stderr, "Warning: %s failed\n", command);
    SensorReading reading{};
    for (int power_index : {1, 10, 20, 30, 40, 50, 60}) {
        snprintf(command, sizeof command, "orca-configure-vtx -p %d", power_index);
        if (system(command) != 0)
            fprintf(stderr, "Warning: %s failed\n", command);
        if (process_sensor_data(&reading, fd, mcs, frequency_mhz, 300, 0.0001) != 0) {
            close(fd);
            return 1;
        }
        printf("power %2d | ch0 %7.2f mV %6.2f dBm | ch1 %7.2f mV %6.2f dBm | %.2f C\n",
               power_index, reading.ch0_mv, reading.ch0_dbm, reading.ch1_mv, reading.ch1_dbm,
               reading.temperature_c);
    }
    close(fd);
    return 0;
}
