// I2C framing for the ADS7142 and the temperature sensor, the converter's reset sequence,
// the data-buffer read and the device probe. Every transfer is a plain write or read on
// the i2c-dev descriptor; the caller has already selected the target's address.
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>

#include "i2c-monitor.h"

namespace {

// ADS7142 opcodes: the first byte of every frame written to the converter.
constexpr uint8_t kOpcodeRegisterWrite = 0x08;
constexpr uint8_t kOpcodeRegisterRead = 0x10;
constexpr uint8_t kOpcodeBufferRead = 0x3B;

constexpr int kBufferBytes = 32;  // 16 big-endian entries
constexpr double kFullScaleMv = 1800.0;

double code_to_mv(int entry) {
    // The upper 12 bits are the conversion; the low 4 may carry a channel id, but the
    // entry's position alone says which channel it is.
    const int code = entry >> 4;
    return code * kFullScaleMv * (1.0 / 4096);
}

}  // namespace

int write_register(int fd, uint8_t reg, uint8_t value) {
    const uint8_t frame[3] = {kOpcodeRegisterWrite, reg, value};
    if (write(fd, frame, sizeof frame) != static_cast<ssize_t>(sizeof frame)) {
        perror("Failed to write to the i2c bus");
        return -1;
    }
    return 0;
}

int read_register(int fd, uint8_t reg) {
    const uint8_t frame[2] = {kOpcodeRegisterRead, reg};
    if (write(fd, frame, sizeof frame) != static_cast<ssize_t>(sizeof frame)) {
        perror("Failed to set register for reading");
        return -1;
    }
    uint8_t value = 0;
    if (read(fd, &value, 1) != 1) {
        perror("Failed to read from the i2c bus");
        return -1;
    }
    return value;
}

int read_word_data(int fd, uint8_t reg) {
    if (write(fd, &reg, 1) != 1) {
        perror("Failed to write to the i2c bus");
        return -1;
    }
    uint8_t word[2] = {0, 0};
    if (read(fd, word, sizeof word) != static_cast<ssize_t>(sizeof word)) {
        perror("Failed to read from the i2c bus");
        return -1;
    }
    return word[0] << 8 | word[1];
}

float convert_to_celsius(int raw) {
    int value = raw >> 4;
    if (raw & 0x8000)
        value -= 4096;  // 12-bit two's complement
    return static_cast<float>(value * 0.0625);
}

int reset_device(int fd, int verbose) {
    // WKEY must hold 0x0A for the converter to accept the reset; it is locked again after.
    if (write_register(fd, WKEY, 0x0A) != 0) {
        if (verbose)
            puts("Failed to write to WKEY register.");
        return -1;
    }
    if (write_register(fd, DEVICE_RESET, 0x01) != 0) {
        if (verbose)
            puts("Failed to write to DEVICE_RESET register.");
        return -1;
    }
    if (verbose)
        puts("Device reset successfully.");
    if (write_register(fd, WKEY, 0x00) != 0) {
        if (verbose)
            puts("Failed to write to WKEY register for safety.");
        return -1;
    }
    if (verbose)
        puts("WKEY register set to 0x00 for safety.");
    return 0;
}

int read_all_data_buffer_entries_by_channel(int fd, double* max_ch0_mv, double* max_ch1_mv) {
    const uint8_t command = kOpcodeBufferRead;
    if (write(fd, &command, 1) != 1) {
        perror("Failed to send read command to the i2c bus");
        return -1;
    }
    uint8_t buffer[kBufferBytes];
    if (read(fd, buffer, sizeof buffer) != static_cast<ssize_t>(sizeof buffer)) {
        perror("Failed to read from the i2c bus");
        return -1;
    }
    // Entries alternate channel 0, channel 1; the cycle keeps the peak, never a mean.
    for (int pair = 0; pair < kBufferBytes / 4; ++pair) {
        const uint8_t* entry = buffer + pair * 4;
        const double ch0_mv = code_to_mv(entry[0] << 8 | entry[1]);
        const double ch1_mv = code_to_mv(entry[2] << 8 | entry[3]);
        if (ch0_mv > *max_ch0_mv)
            *max_ch0_mv = ch0_mv;
        if (ch1_mv > *max_ch1_mv)
            *max_ch1_mv = ch1_mv;
    }
    return 0;
}

int check_i2c_device(int bus, int address) {
    char path[20];
    snprintf(path, sizeof path, "/dev/i2c-%d", bus);
    const int fd = open(path, O_RDWR);
    if (fd < 0)
        return -1;
    if (ioctl(fd, I2C_SLAVE, address) < 0) {
        close(fd);
        return -1;
    }
    // A one-byte write is acknowledged only by a device that is there.
    const uint8_t probe = 0x00;
    const bool acknowledged = write(fd, &probe, 1) == 1;
    close(fd);
    return acknowledged ? 0 : -1;
}
