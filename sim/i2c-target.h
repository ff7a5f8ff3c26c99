// A simulated device on an I2C bus, seen at the level of whole transfers: the bytes of one
// write (after the address byte) or one read. A target that returns false does not
// acknowledge.
#pragma once

#include <cstddef>
#include <cstdint>

namespace board_sim {

class I2cTarget {
  public:
    virtual ~I2cTarget() = default;
    virtual bool write(const uint8_t* data, size_t length) = 0;
    virtual bool read(uint8_t* data, size_t length) = 0;
};

}  // namespace board_sim
