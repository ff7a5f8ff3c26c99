// 12-bit I2C temperature sensor of the TMP102 kind: a pointer register selects the 16-bit
// register that reads return, most significant byte first; pointer 0x00 is the
// temperature in 1/16 degree steps, left-justified two's complement.
#pragma once

#include <array>
#include <cstdint>
#include <functional>

#include "i2c-target.h"

namespace board_sim {

class SimTempSensor : public I2cTarget {
  public:
    // `temperature_word` gives the raw temperature register at the time of a read.
    explicit SimTempSensor(std::function<uint16_t()> temperature_word);

    bool write(const uint8_t* data, size_t length) override;
    bool read(uint8_t* data, size_t length) override;
    int register_of_write(const uint8_t* data, size_t length) const override;
    int register_of_read() const override { return pointer_; }

    static uint16_t word_for_celsius(double celsius);

  private:
    std::function<uint16_t()> temperature_word_;
    std::array<uint16_t, 4> registers_ = {0x0000, 0x60A0, 0x4B00, 0x5000};
    uint8_t pointer_ = 0;
};

}  // namespace board_sim
