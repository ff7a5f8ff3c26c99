#include "target-table.h"

#include <cstdio>

namespace board_sim {

int TargetTable::add(int bus, int address, const std::string& name, I2cTarget* device,
                     std::string* error) {
    char place[48];
    std::snprintf(place, sizeof place, "bus %d address 0x%02x", bus, address & 0xff);
    if (address < 0 || address > 0x7f || device == nullptr) {
        *error = name + ": no device can answer at " + place;
        return -1;
    }
    for (const Entry& entry : entries_) {
        if (entry.bus == bus && entry.address == address) {
            *error = name + " and " + entry.name + " both answer at " + place;
            return -1;
        }
    }
    entries_.push_back({bus, address, name, device});
    return 0;
}

I2cTarget* TargetTable::find(int bus, int address) const {
    for (const Entry& entry : entries_) {
        if (entry.bus == bus && entry.address == address)
            return entry.device;
    }
    return nullptr;
}

}  // namespace board_sim
