#include "sim-temp-sensor.h"

#include <cmath>

namespace board_sim {

SimTempSensor::SimTempSensor(std::function<uint16_t()> temperature_word)
    : temperature_word_(std::move(temperature_word)) {}

uint16_t SimTempSensor::word_for_celsius(double celsius) {
    long steps = std::lround(celsius * 16.0);
    if (steps > 2047)
        steps = 2047;
    if (steps < -2048)
        steps = -2048;
    return static_cast<uint16_t>((static_cast<unsigned long>(steps) & 0xFFF) << 4);
}

bool SimTempSensor::write(const uint8_t* data, size_t length) {
    if (length == 0)
        return true;
    pointer_ = data[0] & 0x03;
    // A pointer byte alone, or with the two bytes of a register; the upper pointer bits
    // must be zero and the temperature register is read-only.
    if ((data[0] & ~0x03) != 0 || (length != 1 && length != 3) || (length == 3 && pointer_ == 0)) {
        unexpected();
        return true;
    }
    if (length == 3)
        registers_[pointer_] = static_cast<uint16_t>(data[1] << 8 | data[2]);
    return true;
}

int SimTempSensor::register_of_write(const uint8_t* data, size_t length) const {
    return length >= 1 ? (data[0] & 0x03) : -1;
}

bool SimTempSensor::read(uint8_t* data, size_t length) {
    const uint16_t word = pointer_ == 0 ? temperature_word_() : registers_[pointer_];
    for (size_t i = 0; i < length; ++i)
        data[i] = (i % 2 == 0) ? static_cast<uint8_t>(word >> 8) : static_cast<uint8_t>(word);
    return true;
}

}  // namespace board_sim
