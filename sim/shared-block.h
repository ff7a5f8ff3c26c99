// A few counters that every process of one simulation shares through a mapped file in the
// sandbox: the virtual clock, the generation of the board state file and the frames that
// no simulated device understood.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace board_sim {

struct SharedBlock {
    uint64_t magic;
    std::atomic<uint64_t> clock_offset_ns;    // how far the clocks run ahead of real time
    std::atomic<uint64_t> wait_ns;            // sleeps and timeouts, as long as asked for
    std::atomic<uint64_t> bus_ns;             // wire time of the simulated I2C traffic
    std::atomic<uint64_t> state_generation;   // bumped by every write of the state file
    std::atomic<uint64_t> unexpected_frames;  // acknowledged, but no model made sense of them
};
static_assert(std::atomic<uint64_t>::is_always_lock_free, "counters are shared between processes");

std::string shared_block_path(const std::string& sandbox_root);
// Creates the block (when `create`) or maps an existing one; nullptr after a message.
SharedBlock* map_shared_block(const std::string& sandbox_root, bool create);

}  // namespace board_sim
