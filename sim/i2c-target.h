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

    // The register a write of `data` would name (written, or chosen for the next read),
    // and the register the next read returns; -1 when there is none (a command, a data
    // buffer). Neither changes the device. Faults that name a register use them.
    virtual int register_of_write(const uint8_t* data, size_t length) const {
        (void)data;
        (void)length;
        return -1;
    }
    virtual int register_of_read() const { return -1; }

    // How many frames the device acknowledged without making sense of them (an unknown
    // command, a frame of the wrong length, a read with nothing to return) since the last
    // call; the count starts again at zero.
    int take_unexpected() {
        const int count = unexpected_;
        unexpected_ = 0;
        return count;
    }

  protected:
    void unexpected() { ++unexpected_; }

  private:
    int unexpected_ = 0;
};

}  // namespace board_sim
