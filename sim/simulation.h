// The simulation inside one process under libboard-sim.so: the sandbox, the cached board
// state, the table of targets on the buses, the descriptors of simulated buses,
// faults, the traffic record and the virtual clock. The interposed libc functions of
// preload-*.cpp and the control API both work through it.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "board-physics.h"
#include "board-sim.h"
#include "board-state.h"
#include "fault.h"
#include "shared-block.h"
#include "sim-ads7142.h"
#include "sim-temp-sensor.h"
#include "target-table.h"

namespace board_sim {

class Simulation {
  public:
    // The process's simulation, or nullptr while the preload is inactive (no sandbox) or
    // not yet set up; callers then pass straight through to libc.
    static Simulation* get() { return instance_.load(std::memory_order_acquire); }
    static void start();   // from the library constructor
    static void finish();  // from the library destructor

    const std::string& root() const { return root_; }
    // Writes the sandboxed location of `path` into `out` and returns true when the path is
    // one of the board's fixed paths; a relative path is taken from `dirfd`.
    bool map_path(const char* path, char* out, size_t size, int dirfd = kCurrentDirectory) const;
    static constexpr int kCurrentDirectory = -100;  // AT_FDCWD

    // Simulated i2c-dev nodes: "/dev/i2c-N" exists when bus N does.
    enum class NodeKind { kNotI2c, kPresent, kAbsent };
    NodeKind classify_node(const char* path, int* bus);
    int open_bus(int bus, int flags);
    static bool is_bus_fd(int fd);
    ssize_t bus_read(int fd, void* data, size_t length);
    ssize_t bus_write(int fd, const void* data, size_t length);
    int bus_ioctl(int fd, unsigned long request, void* argument);
    void forget_fd(int fd);

    // Virtual clock: the clocks read real time plus an offset. A simulated wait of `ns`
    // that really took `real_ns` moves the offset by the difference; bus traffic moves it
    // by its whole wire time.
    void account_wait(uint64_t ns, uint64_t real_ns) {
        shared_->wait_ns.fetch_add(ns);
        if (ns > real_ns)
            shared_->clock_offset_ns.fetch_add(ns - real_ns);
    }
    uint64_t clock_offset_ns() const { return shared_->clock_offset_ns.load(); }
    uint64_t wait_ns() const { return shared_->wait_ns.load(); }
    uint64_t bus_ns() const { return shared_->bus_ns.load(); }
    uint64_t unexpected_frames() const { return shared_->unexpected_frames.load(); }
    double time_scale() const { return time_scale_; }
    // Only the main thread's waits are the tool's; other threads (a pipe reader) keep real
    // time, so that their idle loops neither spin nor run the shared clock ahead.
    bool waits_are_virtual() const;

    // Control API.
    BoardState state();
    int set_state(const BoardState& state);
    int update_state(const std::function<void(BoardState*)>& change);
    void set_local_faults(const std::vector<Fault>& faults);
    void start_recording();
    std::vector<Transfer> recorded_traffic();
    void queue_adc_buffer(const SimAds7142::Buffer& entries);
    void clear_adc_queue();
    void set_temperature_word(int word);
    int adc_register(uint8_t reg);
    int adc_sequences();
    void reset_board();

  private:
    struct ArmedFault {
        Fault fault;
        int seen = 0;
    };
    enum class FaultEffect { kNone, kFail, kShort };

    Simulation(std::string root, SharedBlock* shared, bool owns_sandbox);
    void refresh_state();  // with mutex_ held
    void wire_targets();   // with mutex_ held
    I2cTarget* target_at(int bus, int address);
    // `reg` is the register the operation names, -1 for none.
    FaultEffect next_fault(BusOp op, int address, int reg = -1);
    void charge_bus_time(size_t bytes);
    // Counts what `target` could not make sense of in the transfer just done; a probe
    // (scans look for the acknowledge only) and a transfer a fault cut short do not count.
    // Returns whether anything was counted.
    bool check_understood(I2cTarget* target, bool counts);
    void record(int bus, int address, TransferKind kind, const uint8_t* bytes, size_t length,
                bool ok, bool unexpected = false);
    double sample_mv(int channel);
    uint64_t now_ns() const;  // the virtual clock
    uint16_t temperature_word();
    int smbus(int fd, void* argument);

    static std::atomic<Simulation*> instance_;

    const std::string root_;
    const std::string state_path_;
    SharedBlock* const shared_;
    const bool owns_sandbox_;
    const pid_t creator_pid_;
    double time_scale_ = 0.0;
    bool real_time_ = false;

    std::mutex mutex_;
    BoardState state_;
    BoardPhysics physics_;  // of state_
    // A real board's detector voltages, worked out once per converter sequence: the 16
    // conversions of one sequence take microseconds.
    int physics_sequence_ = -1;
    uint64_t physics_generation_ = 0;
    double physics_mv_[2] = {0.0, 0.0};
    uint64_t state_generation_ = ~uint64_t{0};
    std::string state_faults_text_;
    std::vector<ArmedFault> state_faults_;
    std::vector<ArmedFault> local_faults_;
    bool recording_ = false;
    std::vector<Transfer> traffic_;
    SimAds7142 adc_;
    SimTempSensor temperature_sensor_;
    TargetTable targets_;
    int temperature_override_ = -1;
    std::mt19937 noise_;
    unsigned noise_seed_ = 0;
};

}  // namespace board_sim
