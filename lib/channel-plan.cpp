// The channels the system knows, conversions between channels, frequencies and bands,
// channel scanning, and tuning the interface with iw.
#include <cstdio>
#include <iterator>
#include <string>

#include <fmt/core.h>

#include "command-output.h"
#include "orca-common.h"
#include "shell-command.h"

namespace {

std::map<int, int> make_2g_channels() {
    std::map<int, int> channels;
    for (int channel = 1; channel <= 13; ++channel)
        channels[channel] = 2407 + 5 * channel;
    channels[14] = 2484;
    return channels;
}

std::map<int, int> make_5g_channels() {
    std::map<int, int> channels;
    for (int channel = 36; channel <= 64; channel += 4)
        channels[channel] = 5000 + 5 * channel;
    for (int channel = 100; channel <= 144; channel += 4)
        channels[channel] = 5000 + 5 * channel;
    for (int channel = 149; channel <= 173; channel += 4)
        channels[channel] = 5000 + 5 * channel;
    return channels;
}

std::map<int, int> make_all_channels() {
    std::map<int, int> channels = make_2g_channels();
    const std::map<int, int> five = make_5g_channels();
    channels.insert(five.begin(), five.end());
    return channels;
}

}  // namespace

std::map<int, int> band_2g_channels = make_2g_channels();
std::map<int, int> band_5g_channels = make_5g_channels();
std::map<int, int> all_channels = make_all_channels();

int channel_to_frequency(int channel) {
    auto it = all_channels.find(channel);
    if (it == all_channels.end()) {
        fmt::print(stderr, "Invalid channel provided (CH: {})!\n", channel);
        return -1;
    }
    return it->second;
}

int frequency_to_channel(int frequency_mhz) {
    for (const auto& [channel, frequency] : all_channels) {
        if (frequency == frequency_mhz)
            return channel;
    }
    fmt::print(stderr, "Invalid frequency provided (FRQ: {})!\n", frequency_mhz);
    return -1;
}

int frequency_to_band(int frequency_mhz) {
    return frequency_mhz > 5179 ? 1 : 0;
}

int channel_to_band(int channel) {
    return channel > 35 ? 1 : 0;
}

int get_next_channel(int channel, scan_direction_e direction) {
    auto it = all_channels.find(channel);
    if (it == all_channels.end()) {
        std::printf("INVALID Channel provided (%d). Staying on current frequency.\n", channel);
        return channel;
    }
    // The walk crosses band gaps without a break and wraps at both ends of the plan.
    if (direction == SCAN_DIRECTION_UP) {
        ++it;
        return it == all_channels.end() ? all_channels.begin()->first : it->first;
    }
    if (it == all_channels.begin())
        return all_channels.rbegin()->first;
    return std::prev(it)->first;
}

const char* bw_for_frequency(int frequency_mhz) {
    if (frequency_mhz > 5179) {
        // The last channel of each 5 GHz block pairs with the one below it.
        if (frequency_mhz == 5320 || frequency_mhz == 5720 || frequency_mhz == 5885)
            return "HT40-";
        return "HT40+";
    }
    return frequency_mhz < 2457 ? "HT40+" : "HT40-";
}

std::string get_chip(std::string card) {
    if (!orca_shell::is_safe_name(card, "interface"))
        return "";
    const std::string command =
        fmt::format("ls /sys/class/net/{}/device/driver/module/drivers", card);
    std::fflush(nullptr);
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        std::printf("get_chip: cannot open pipe\n");
        return "";
    }
    std::string listing = orca_command::read_all(pipe);
    pclose(pipe);
    if (listing.find("rtl8812au") != std::string::npos ||
        listing.find("rtl88xxau_vtx") != std::string::npos)
        return "rtl8812au";
    if (listing.size() > 1)
        listing.pop_back();  // the listing's newline
    return listing;
}

int set_frequency_and_bw(std::string card, int frequency_mhz, int bandwidth_mhz,
                         RegulatoryDomain domain) {
    if (domain == RegulatoryDomain::fcc && frequency_mhz >= 5260 && frequency_mhz <= 5720) {
        std::printf("DFS Channels disabled! (Channels 52-144, 5240-5720MHz)\n");
        return -1;
    }
    if (!orca_shell::is_safe_name(card, "interface"))
        return -1;
    const std::string chip = get_chip(card);
    const char* mode = bandwidth_mhz == 20 ? "HT20" : bw_for_frequency(frequency_mhz);
    std::string command;
    if (chip.find("rtl8812au") != std::string::npos) {
        // This driver is tuned to one of two fixed channels, whatever was requested.
        const int fixed_mhz = std::string(mode) == "HT40-" ? 5200 : 5180;
        command = fmt::format("iw dev {} set freq {} {}", card, fixed_mhz, mode);
    } else if (frequency_mhz == 2484) {
        // Channel 14 allows no 40 MHz pairing, so iw gets no mode.
        command = fmt::format("iw dev {} set freq 2484", card);
    } else {
        command = fmt::format("iw dev {} set freq {} {}", card, frequency_mhz, mode);
    }
    return orca_shell::run(command);
}
