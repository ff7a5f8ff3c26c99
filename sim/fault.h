// Faults that a test injects into the simulated I2C traffic.
#pragma once

#include <string>
#include <vector>

namespace board_sim {

enum class BusOp { kSelect, kWrite, kRead };

// The nth operation of kind `op` to `address` (counted by each process from the moment
// the fault is set, 1-based) and the `count` - 1 after it fail; count 0 means every one
// from the nth on. With `reg` set only the writes and reads of that register count: a
// write that names it (a register write, or the register or pointer byte before a read)
// and a read that returns it; a select has no register. A failing select returns EBUSY,
// a failing write or read EIO; with `short_transfer` a write or read moves one byte less
// than asked instead.
struct Fault {
    BusOp op = BusOp::kWrite;
    int address = 0;
    int nth = 1;
    int count = 1;
    bool short_transfer = false;
    int reg = -1;  // -1: every operation of the kind counts
};

// Text form, entries separated by ';': "op:address[:reg=R]:nth[:count[:short]]", op one
// of select, write, read; for example "read:0x1d:4:0" (every buffer read from the fourth
// on), "write:0x1d:reg=0x1e:4" (the fourth write of register 0x1E) or "read:0x48:1:1:short".
// Returns 0, or -1 with *error set (and *faults unchanged).
int parse_faults(const std::string& text, std::vector<Fault>* faults, std::string* error);
// The text form of one fault, which parse_faults reads back as the same fault.
std::string format_fault(const Fault& fault);

}  // namespace board_sim
