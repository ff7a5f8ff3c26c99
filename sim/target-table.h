// Which device answers where: one entry per {bus, address}. The simulation builds it from
// the board's wiring whenever the board state changes.
#pragma once

#include <string>
#include <vector>

#include "i2c-target.h"

namespace board_sim {

class TargetTable {
  public:
    struct Entry {
        int bus;
        int address;
        std::string name;
        I2cTarget* device;
    };

    // Puts `device` at `address` on `bus`. Returns 0, or -1 with *error set and the table
    // unchanged when the address is outside 0x00-0x7f, the device is null or another
    // device already answers there.
    int add(int bus, int address, const std::string& name, I2cTarget* device, std::string* error);
    // The device at `address` on `bus`, or nullptr when nothing answers there.
    I2cTarget* find(int bus, int address) const;
    const std::vector<Entry>& entries() const { return entries_; }
    void clear() { entries_.clear(); }

  private:
    std::vector<Entry> entries_;
};

}  // namespace board_sim
