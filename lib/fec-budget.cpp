// How much the radio carries per MCS and channel width, and how much of it each frame
// may spend on forward error correction.
#include <climits>
#include <cmath>
#include <cstdio>

#include <fmt/core.h>

#include "orca-vtx-helpers.h"

// Single-stream 802.11n rates for 5 GHz; the 2.4 GHz tables are held to 80 percent of them.
std::map<int, int> max_bitrates_20mhz = {
    {0, 6500000},  {1, 13000000}, {2, 19500000}, {3, 26000000},
    {4, 39000000}, {5, 52000000}, {6, 58500000}, {7, 65000000},
};
std::map<int, int> max_bitrates_40mhz = {
    {0, 13500000}, {1, 27000000},  {2, 40500000},  {3, 54000000},
    {4, 81000000}, {5, 108000000}, {6, 121500000}, {7, 135000000},
};
std::map<int, int> max_bitrates_20mhz_2g = {
    {0, 5200000},  {1, 10400000}, {2, 15600000}, {3, 20800000},
    {4, 31200000}, {5, 41600000}, {6, 46800000}, {7, 52000000},
};
std::map<int, int> max_bitrates_40mhz_2g = {
    {0, 10800000}, {1, 21600000}, {2, 32400000}, {3, 43200000},
    {4, 64800000}, {5, 86400000}, {6, 97200000}, {7, 108000000},
};

int32_t fec_debt_bytes = 0;

namespace {

constexpr int kMinFecPercent = 75;

int32_t clamp_to_int32(double value) {
    if (!(value > INT32_MIN))
        return INT32_MIN;
    if (!(value < INT32_MAX))
        return INT32_MAX;
    return static_cast<int32_t>(value);
}

}  // namespace

int get_max_bitrate(int mcs, int frequency_mhz, int bandwidth_mhz) {
    const bool five_ghz = frequency_to_band(frequency_mhz) == 1;
    const bool wide = bandwidth_mhz > 39;
    std::map<int, int>& table = five_ghz ? (wide ? max_bitrates_40mhz : max_bitrates_20mhz)
                                         : (wide ? max_bitrates_40mhz_2g : max_bitrates_20mhz_2g);
    return table[mcs] / 8;
}

int adjust_fec(int frame_budget, int frame_size, vtx_config_t* config, int nal_type,
               int frames_per_period, int frames_sent) {
    if (config->active_profile_idx < 0 ||
        config->active_profile_idx >= static_cast<int>(config->profiles.size())) {
        fmt::print(stderr, "Error: active profile {} does not exist ({} profiles)\n",
                   config->active_profile_idx, config->profiles.size());
        return -1;
    }
    const vtx_profile_t& profile = config->profiles[config->active_profile_idx];

    int32_t budget = clamp_to_int32(static_cast<float>(frame_budget) * 0.9f);
    const int cap = profile.framerate < 31 ? 200 : 100;
    const int overhead = profile.venc_mode == VENC_H265 ? 63 : 62;  // headers per packet

    if (nal_type == 5 || nal_type == 19) {
        fec_debt_bytes = 0;  // a key frame starts the period afresh
    } else if (frames_per_period > 0 && fec_debt_bytes > 0) {
        // Spread what earlier frames owe over the frames left in the period.
        const int64_t remaining = int64_t{frames_per_period} - frames_sent;
        if (remaining > 0) {
            const int32_t share = static_cast<int32_t>(fec_debt_bytes / remaining);
            budget = budget > share ? budget - share : 0;
            fec_debt_bytes -= share;
        }
    }

    const int64_t packets = profile.mtu > 0 && frame_size > 0
                                ? (int64_t{frame_size} + profile.mtu - 1) / profile.mtu
                                : 0;
    const float wire = static_cast<float>(int64_t{frame_size} + packets * overhead);
    // A frame with nothing on the wire leaves the whole budget to FEC.
    const int64_t pct =
        wire > 0 ? int64_t{clamp_to_int32(budget / wire * 100.0f)} - 100 : INT64_MAX;

    int chosen;
    if (pct < kMinFecPercent) {
        // The frame gets the minimum protection anyway; later frames pay for it.
        chosen = kMinFecPercent;
        const double missing = 1.75 * wire - budget;
        if (missing > 0)
            fec_debt_bytes =
                clamp_to_int32(static_cast<double>(fec_debt_bytes) + std::trunc(missing));
    } else {
        chosen = pct > cap ? cap : static_cast<int>(pct);
    }
    config->fec_percent = chosen;

    if (fec_debt_bytes < 1)
        return chosen;
    const int32_t surplus = clamp_to_int32(budget - std::trunc((chosen / 100.0 + 1.0) * wire));
    if (surplus < 1)
        return surplus;
    fec_debt_bytes = fec_debt_bytes > surplus ? fec_debt_bytes - surplus : 0;
    return fec_debt_bytes;
}

double _calc_input_bitrate_mbps(int next_position, const std::vector<uint64_t>& frame_sizes,
                                const std::vector<int64_t>& frame_times_ns) {
    constexpr int kRing = 60;
    const int count = static_cast<int>(frame_sizes.size());
    if (frame_sizes.size() < 2 || frame_times_ns.size() < 2 || count > kRing || next_position < 0)
        return 0.0;
    const int newest = next_position == 0 ? 0 : next_position - 1;
    int oldest = newest - count + 1;
    if (oldest < 0)
        oldest += kRing;
    // A position that does not fit the rings as filled so far gives no measurement.
    auto inside = [&](int i) {
        return i >= 0 && i < count && i < static_cast<int>(frame_times_ns.size());
    };
    if (!inside(newest) || !inside(oldest))
        return 0.0;

    // Every entry is summed, newest to oldest: one frame more than the time span covers.
    uint64_t sum = 0;
    for (int k = 0, i = newest; k < count; ++k) {
        if (!inside(i))
            return 0.0;
        sum += frame_sizes[i];
        i = i == 0 ? kRing - 1 : i - 1;
    }
    // The times are subtracted as integers: clock readings since the epoch are beyond what
    // a double holds to the nanosecond.
    int64_t span_ns = 0;
    if (__builtin_sub_overflow(frame_times_ns[newest], frame_times_ns[oldest], &span_ns))
        return 0.0;
    // Two equal times would give an infinite rate. A negative span is measured as it
    // stands: at write position 0 the entry taken as newest is the oldest of a full ring.
    if (span_ns == 0)
        return 0.0;
    return (static_cast<double>(sum) / 1000000.0 * 8.0) /
           (static_cast<double>(span_ns) / 1000000000.0);
}
