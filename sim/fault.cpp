#include "fault.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace board_sim {

namespace {

bool parse_number(const std::string& text, long low, long high, int* value) {
    if (text.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v < low || v > high)
        return false;
    *value = static_cast<int>(v);
    return true;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::stringstream in(text);
    std::string part;
    while (std::getline(in, part, separator))
        parts.push_back(part);
    return parts;
}

}  // namespace

int parse_faults(const std::string& text, std::vector<Fault>* faults, std::string* error) {
    std::vector<Fault> result;
    for (const std::string& entry : split(text, ';')) {
        if (entry.empty())
            continue;
        std::vector<std::string> fields = split(entry, ':');
        Fault fault;
        // An optional "reg=R" follows the address.
        bool ok = fields.size() >= 3;
        if (ok && fields[2].compare(0, 4, "reg=") == 0) {
            ok = fields[0] != "select" && parse_number(fields[2].substr(4), 0, 0xff, &fault.reg);
            fields.erase(fields.begin() + 2);
        }
        ok = ok && fields.size() >= 3 && fields.size() <= 5;
        if (ok) {
            if (fields[0] == "select")
                fault.op = BusOp::kSelect;
            else if (fields[0] == "write")
                fault.op = BusOp::kWrite;
            else if (fields[0] == "read")
                fault.op = BusOp::kRead;
            else
                ok = false;
        }
        ok = ok && parse_number(fields[1], 0, 0x7f, &fault.address) &&
             parse_number(fields[2], 1, 1000000000, &fault.nth);
        if (ok && fields.size() >= 4)
            ok = parse_number(fields[3], 0, 1000000000, &fault.count);
        if (ok && fields.size() == 5) {
            ok = fields[4] == "short" && fault.op != BusOp::kSelect;
            fault.short_transfer = ok;
        }
        if (!ok) {
            *error =
                "bad fault \"" + entry + "\" (expected op:address[:reg=R]:nth[:count[:short]])";
            return -1;
        }
        result.push_back(fault);
    }
    *faults = result;
    return 0;
}

std::string format_fault(const Fault& fault) {
    static const char* const kOps[] = {"select", "write", "read"};
    char address[8];
    std::snprintf(address, sizeof address, "0x%02x", fault.address);
    std::string text = std::string(kOps[static_cast<int>(fault.op)]) + ":" + address + ":";
    if (fault.reg >= 0) {
        char reg[12];
        std::snprintf(reg, sizeof reg, "reg=0x%02x:", fault.reg & 0xff);
        text += reg;
    }
    text += std::to_string(fault.nth) + ":" + std::to_string(fault.count);
    if (fault.short_transfer)
        text += ":short";
    return text;
}

}  // namespace board_sim
