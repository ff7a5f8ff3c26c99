#include "simulation.h"

#include <fcntl.h>
#include <limits.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "preload-trace.h"
#include "rf-model.h"
#include "sandbox.h"

namespace board_sim {

std::atomic<Simulation*> Simulation::instance_{nullptr};

namespace {

constexpr int kMaxFds = 4096;
constexpr size_t kMaxRecorded = 1000000;

// Descriptor tables of simulated buses, indexed by descriptor. The bus entry is read
// without the lock by every interposed read and write, hence atomic.
std::atomic<int> g_fd_bus[kMaxFds];  // bus + 1; 0: not a simulated bus
int g_fd_address[kMaxFds];           // selected target; -1 until the first select

// A finished simulation stays, and stays reachable (for leak checkers too): a late
// interposed call on another thread may still hold it.
Simulation* g_retired = nullptr;

}  // namespace

void Simulation::start() {
    if (instance_.load() != nullptr)
        return;
    configure_trace(std::getenv("ORCA_SIM_TRACE"));
    std::string root;
    bool owns_sandbox = false;
    const char* configured = std::getenv("ORCA_SIM_ROOT");
    const char* automatic = std::getenv("ORCA_SIM_AUTO_SANDBOX");
    if (configured != nullptr && configured[0] != '\0') {
        root = configured;
    } else if (automatic != nullptr && std::strcmp(automatic, "1") == 0) {
        // A sandbox of our own, which children inherit through the environment. The name
        // is short because AF_UNIX paths below it are limited to 108 bytes.
        char name[] = "/tmp/obs-XXXXXX";
        if (mkdtemp(name) == nullptr) {
            std::fprintf(stderr, "board-sim: cannot create a sandbox: %s\n", std::strerror(errno));
            return;
        }
        root = name;
        if (prepare_sandbox(root, BoardState{}) != 0) {
            remove_tree(root);
            return;
        }
        setenv("ORCA_SIM_ROOT", root.c_str(), 1);
        owns_sandbox = true;
    } else {
        return;  // no simulation: every call passes straight through
    }
    SharedBlock* shared = map_shared_block(root, false);
    if (shared == nullptr)
        return;
    auto* simulation = new Simulation(root, shared, owns_sandbox);
    if (const char* scale = std::getenv("ORCA_SIM_TIME_SCALE"))
        simulation->time_scale_ = std::atof(scale);
    if (const char* real = std::getenv("ORCA_SIM_REAL_TIME"))
        simulation->real_time_ = std::strcmp(real, "1") == 0;
    instance_.store(simulation, std::memory_order_release);
}

void Simulation::finish() {
    Simulation* simulation = instance_.exchange(nullptr);
    if (simulation == nullptr)
        return;
    g_retired = simulation;
    if (simulation->owns_sandbox_ && getpid() == simulation->creator_pid_)
        remove_tree(simulation->root_);
}

Simulation::Simulation(std::string root, SharedBlock* shared, bool owns_sandbox)
    : root_(std::move(root)),
      state_path_(state_file_path(root_)),
      shared_(shared),
      owns_sandbox_(owns_sandbox),
      creator_pid_(getpid()),
      adc_([this](int channel) { return sample_mv(channel); }),
      temperature_sensor_([this] { return temperature_word(); }) {
    wire_targets();
}

namespace {

// Lexical clean-up of an absolute path: no "." or empty parts, ".." taken back.
std::string normalized(const std::string& path) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos)
            slash = path.size();
        const std::string part = path.substr(start, slash - start);
        if (part == "..") {
            if (!parts.empty())
                parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        start = slash + 1;
    }
    std::string result;
    for (const std::string& part : parts)
        result += "/" + part;
    return result.empty() ? "/" : result;
}

// The directory a relative path starts from.
bool base_directory(int dirfd, std::string* base) {
    char buffer[PATH_MAX];
    if (dirfd == AT_FDCWD) {
        if (getcwd(buffer, sizeof buffer) == nullptr)
            return false;
        *base = buffer;
        return true;
    }
    char link[64];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", dirfd);
    const ssize_t length = readlink(link, buffer, sizeof buffer - 1);
    if (length <= 0 || buffer[0] != '/')
        return false;
    buffer[length] = '\0';
    *base = buffer;
    return true;
}

}  // namespace

bool Simulation::map_path(const char* path, char* out, size_t size, int dirfd) const {
    if (path == nullptr || path[0] == '\0')
        return false;
    // Relative names count too: "mkdir -p" walks down from "/run" one part at a time.
    std::string full;
    if (path[0] == '/') {
        full = path;
    } else {
        std::string base;
        if (!base_directory(dirfd, &base) || base.compare(0, root_.size(), root_) == 0)
            return false;  // already inside the sandbox, or nowhere known
        full = base + "/" + path;
    }
    full = normalized(full);
    for (const char* prefix : kSandboxedPrefixes) {
        const size_t length = std::strlen(prefix);
        if (full.compare(0, length, prefix) == 0 &&
            (full.size() == length || full[length] == '/')) {
            const int written = std::snprintf(out, size, "%s%s", root_.c_str(), full.c_str());
            // A path too long for the sandbox must not fall through to the host's: it
            // becomes the empty path, which every call refuses.
            if (written < 0 || static_cast<size_t>(written) >= size)
                out[0] = '\0';
            return true;
        }
    }
    return false;
}

bool Simulation::waits_are_virtual() const {
    return !real_time_ && static_cast<pid_t>(syscall(SYS_gettid)) == getpid();
}

void Simulation::refresh_state() {
    const uint64_t generation = shared_->state_generation.load();
    if (generation == state_generation_)
        return;
    BoardState loaded;
    if (load_state(state_path_, &loaded) != 0)
        return;  // keep the last good state; the reader has said what is wrong
    state_ = loaded;
    state_generation_ = generation;
    std::string error;
    if (read_physics(state_, &physics_, &error) != 0) {
        std::fprintf(stderr, "board-sim: %s\n", error.c_str());
        physics_ = BoardPhysics{};
    }
    wire_targets();
    if (state_.faults != state_faults_text_) {
        state_faults_text_ = state_.faults;
        std::vector<Fault> faults;
        if (parse_faults(state_.faults, &faults, &error) != 0)
            std::fprintf(stderr, "board-sim: %s\n", error.c_str());
        state_faults_.clear();
        for (const Fault& fault : faults)
            state_faults_.push_back({fault, 0});
    }
    if (state_.seed != noise_seed_) {
        noise_seed_ = state_.seed;
        noise_.seed(noise_seed_);
    }
}

Simulation::NodeKind Simulation::classify_node(const char* path, int* bus) {
    if (path == nullptr)
        return NodeKind::kNotI2c;
    if (std::strncmp(path, "/dev/i2c/", 9) == 0)
        return NodeKind::kAbsent;  // only the flat /dev/i2c-N names exist on this board
    if (std::strncmp(path, "/dev/i2c-", 9) != 0)
        return NodeKind::kNotI2c;
    const char* digits = path + 9;
    if (*digits == '\0' || std::strspn(digits, "0123456789") != std::strlen(digits) ||
        std::strlen(digits) > 3)
        return NodeKind::kAbsent;
    *bus = std::atoi(digits);
    std::lock_guard<std::mutex> lock(mutex_);
    refresh_state();
    for (int existing : state_.buses) {
        if (existing == *bus)
            return NodeKind::kPresent;
    }
    return NodeKind::kAbsent;
}

int Simulation::open_bus(int bus, int flags) {
    // A real descriptor keeps close, dup, fork and exec semantics; the traffic on it is ours.
    const int fd = open("/dev/null", O_RDWR | (flags & O_CLOEXEC));
    if (fd < 0)
        return -1;
    if (fd >= kMaxFds) {
        close(fd);
        errno = EMFILE;
        return -1;
    }
    g_fd_address[fd] = -1;
    g_fd_bus[fd].store(bus + 1);
    trace(kTraceBus, "open /dev/i2c-%d: fd %d", bus, fd);
    return fd;
}

bool Simulation::is_bus_fd(int fd) {
    return fd >= 0 && fd < kMaxFds && g_fd_bus[fd].load(std::memory_order_relaxed) != 0;
}

void Simulation::forget_fd(int fd) {
    if (fd >= 0 && fd < kMaxFds && g_fd_bus[fd].exchange(0) != 0)
        trace(kTraceBus, "close fd %d", fd);
}

void Simulation::wire_targets() {
    // The chips of the board: name, address, the bus the board state puts it on (-1: not
    // fitted) and its model. A new chip is one more line.
    const struct {
        const char* name;
        int address;
        int bus;
        I2cTarget* device;
    } chips[] = {
        {"ads7142", 0x1d, state_.adc_bus, &adc_},
        {"temperature sensor", 0x48, state_.temp_bus, &temperature_sensor_},
    };
    targets_.clear();
    for (const auto& chip : chips) {
        std::string error;
        if (chip.bus >= 0 &&
            targets_.add(chip.bus, chip.address, chip.name, chip.device, &error) != 0)
            std::fprintf(stderr, "board-sim: %s\n", error.c_str());
    }
}

I2cTarget* Simulation::target_at(int bus, int address) {
    return targets_.find(bus, address);
}

Simulation::FaultEffect Simulation::next_fault(BusOp op, int address, int reg) {
    FaultEffect effect = FaultEffect::kNone;
    for (auto* list : {&local_faults_, &state_faults_}) {
        for (ArmedFault& armed : *list) {
            const Fault& fault = armed.fault;
            if (fault.op != op || fault.address != address || (fault.reg >= 0 && fault.reg != reg))
                continue;
            ++armed.seen;
            const bool hit = armed.seen >= fault.nth &&
                             (fault.count == 0 || armed.seen < fault.nth + fault.count);
            if (hit && effect == FaultEffect::kNone)
                effect = fault.short_transfer ? FaultEffect::kShort : FaultEffect::kFail;
        }
    }
    return effect;
}

void Simulation::charge_bus_time(size_t bytes) {
    // Start, address byte, data bytes (8 bits and an acknowledge each), stop.
    const uint64_t bits = (bytes + 1) * 9 + 2;
    const uint64_t ns = bits * 1000000 / static_cast<uint64_t>(state_.bus_khz);
    shared_->bus_ns.fetch_add(ns);
    shared_->clock_offset_ns.fetch_add(ns);
}

bool Simulation::check_understood(I2cTarget* target, bool counts) {
    const int unexpected = target->take_unexpected();
    if (unexpected == 0 || !counts)
        return false;
    shared_->unexpected_frames.fetch_add(static_cast<uint64_t>(unexpected));
    return true;
}

void Simulation::record(int bus, int address, TransferKind kind, const uint8_t* bytes,
                        size_t length, bool ok, bool unexpected) {
    const bool keep = recording_ && traffic_.size() < kMaxRecorded;
    if (!keep && !tracing(kTraceBus))
        return;
    Transfer transfer;
    transfer.bus = bus;
    transfer.address = address;
    transfer.kind = kind;
    if (bytes != nullptr)
        transfer.bytes.assign(bytes, bytes + length);
    transfer.ok = ok;
    // describe() starts with "bus ", which the trace line already says.
    trace(kTraceBus, "%s%s", describe(transfer).c_str() + 4, unexpected ? " UNEXPECTED" : "");
    if (keep)
        traffic_.push_back(std::move(transfer));
}

uint64_t Simulation::now_ns() const {
    timespec now{};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec) +
           shared_->clock_offset_ns.load();
}

double Simulation::sample_mv(int channel) {
    double mv = 0.0;
    if (physics_.enabled) {
        if (adc_.sequences() != physics_sequence_ || state_generation_ != physics_generation_) {
            const uint64_t now = now_ns();
            for (int c = 0; c < 2; ++c)
                physics_mv_[c] = physics_detector_mv(state_, physics_, c, now);
            physics_sequence_ = adc_.sequences();
            physics_generation_ = state_generation_;
        }
        mv = physics_mv_[channel == 0 ? 0 : 1];
    } else {
        mv = detector_mv(state_, channel);
    }
    if (state_.noise_mv > 0.0)
        mv += std::uniform_real_distribution<double>(-state_.noise_mv, state_.noise_mv)(noise_);
    return mv;
}

uint16_t Simulation::temperature_word() {
    if (temperature_override_ >= 0)
        return static_cast<uint16_t>(temperature_override_);
    if (physics_.enabled)
        return SimTempSensor::word_for_celsius(board_temperature_c(state_, physics_, now_ns()));
    return SimTempSensor::word_for_celsius(state_.temperature_c);
}

ssize_t Simulation::bus_write(int fd, const void* data, size_t length) {
    std::lock_guard<std::mutex> lock(mutex_);
    refresh_state();
    const int bus = g_fd_bus[fd].load() - 1;
    // Before the first select the kernel addresses 0x00, where nothing answers.
    const int address = g_fd_address[fd] < 0 ? 0 : g_fd_address[fd];
    const auto* bytes = static_cast<const uint8_t*>(data);
    I2cTarget* target = target_at(bus, address);
    const FaultEffect effect =
        target ? next_fault(BusOp::kWrite, address, target->register_of_write(bytes, length))
               : FaultEffect::kNone;
    charge_bus_time(target && effect != FaultEffect::kFail ? length : 0);
    if (target == nullptr || effect == FaultEffect::kFail) {
        record(bus, address, TransferKind::kWrite, bytes, length, false);
        errno = target == nullptr ? ENXIO : EIO;
        return -1;
    }
    const size_t sent = (effect == FaultEffect::kShort && length > 0) ? length - 1 : length;
    target->write(bytes, sent);
    const bool unexpected = check_understood(target, effect == FaultEffect::kNone);
    record(bus, address, TransferKind::kWrite, bytes, sent, true, unexpected);
    return static_cast<ssize_t>(sent);
}

ssize_t Simulation::bus_read(int fd, void* data, size_t length) {
    std::lock_guard<std::mutex> lock(mutex_);
    refresh_state();
    const int bus = g_fd_bus[fd].load() - 1;
    const int address = g_fd_address[fd] < 0 ? 0 : g_fd_address[fd];
    auto* bytes = static_cast<uint8_t*>(data);
    I2cTarget* target = target_at(bus, address);
    const FaultEffect effect =
        target ? next_fault(BusOp::kRead, address, target->register_of_read()) : FaultEffect::kNone;
    charge_bus_time(target && effect != FaultEffect::kFail ? length : 0);
    if (target == nullptr || effect == FaultEffect::kFail) {
        record(bus, address, TransferKind::kRead, nullptr, 0, false);
        errno = target == nullptr ? ENXIO : EIO;
        return -1;
    }
    const size_t received = (effect == FaultEffect::kShort && length > 0) ? length - 1 : length;
    target->read(bytes, received);
    const bool unexpected = check_understood(target, effect == FaultEffect::kNone);
    record(bus, address, TransferKind::kRead, bytes, received, true, unexpected);
    return static_cast<ssize_t>(received);
}

int Simulation::smbus(int fd, void* argument) {
    auto* request = static_cast<i2c_smbus_ioctl_data*>(argument);
    const int bus = g_fd_bus[fd].load() - 1;
    const int address = g_fd_address[fd] < 0 ? 0 : g_fd_address[fd];
    I2cTarget* target = target_at(bus, address);
    if (request->size == I2C_SMBUS_QUICK) {
        const FaultEffect effect = target ? next_fault(BusOp::kWrite, address) : FaultEffect::kNone;
        charge_bus_time(0);
        const bool ok =
            target != nullptr && effect == FaultEffect::kNone && target->write(nullptr, 0);
        if (target != nullptr)
            check_understood(target, false);  // a probe: the address phase is all it is
        record(bus, address, TransferKind::kQuick, nullptr, 0, ok);
        if (!ok) {
            errno = target == nullptr ? ENXIO : EIO;
            return -1;
        }
        return 0;
    }
    if (request->size == I2C_SMBUS_BYTE) {
        const bool reading = request->read_write == I2C_SMBUS_READ;
        uint8_t byte = request->command;
        const FaultEffect effect =
            target == nullptr ? FaultEffect::kNone
            : reading         ? next_fault(BusOp::kRead, address, target->register_of_read())
                      : next_fault(BusOp::kWrite, address, target->register_of_write(&byte, 1));
        charge_bus_time(1);
        bool ok = target != nullptr && effect == FaultEffect::kNone;
        if (ok)
            ok = reading ? target->read(&byte, 1) : target->write(&byte, 1);
        if (ok && reading)
            request->data->byte = byte;
        // Receiving a byte is how i2cdetect -r probes: it looks for the acknowledge and
        // ignores the data, so a target with nothing to say is no surprise.
        const bool unexpected = target != nullptr && check_understood(target, ok && !reading);
        record(bus, address, reading ? TransferKind::kReadByte : TransferKind::kWrite,
               ok ? &byte : nullptr, ok ? 1 : 0, ok, unexpected);
        if (!ok) {
            errno = target == nullptr ? ENXIO : EIO;
            return -1;
        }
        return 0;
    }
    trace(kTraceBus, "%d smbus transfer of size %u refused", bus, request->size);
    errno = EOPNOTSUPP;  // the adapter claims quick and byte transfers only
    return -1;
}

int Simulation::bus_ioctl(int fd, unsigned long request, void* argument) {
    std::lock_guard<std::mutex> lock(mutex_);
    refresh_state();
    const int bus = g_fd_bus[fd].load() - 1;
    switch (request) {
        case I2C_SLAVE:
        case I2C_SLAVE_FORCE: {
            const long address = reinterpret_cast<long>(argument);
            if (address < 0 || address > 0x7f) {
                errno = EINVAL;
                return -1;
            }
            // Like the kernel, selecting works whether or not anything answers there.
            const bool ok =
                next_fault(BusOp::kSelect, static_cast<int>(address)) == FaultEffect::kNone;
            record(bus, static_cast<int>(address), TransferKind::kSelect, nullptr, 0, ok);
            if (!ok) {
                errno = EBUSY;
                return -1;
            }
            g_fd_address[fd] = static_cast<int>(address);
            return 0;
        }
        case I2C_FUNCS:
            trace(kTraceBus, "%d functions", bus);
            *static_cast<unsigned long*>(argument) =
                I2C_FUNC_I2C | I2C_FUNC_SMBUS_QUICK | I2C_FUNC_SMBUS_BYTE;
            return 0;
        case I2C_SMBUS:
            return smbus(fd, argument);
        case I2C_TENBIT:
            trace(kTraceBus, "%d ten-bit addresses %s", bus, argument ? "refused" : "off");
            if (argument != nullptr) {
                errno = EOPNOTSUPP;
                return -1;
            }
            return 0;
        case I2C_RETRIES:
        case I2C_TIMEOUT:
            trace(kTraceBus, "%d %s set", bus, request == I2C_RETRIES ? "retries" : "timeout");
            return 0;
        default:
            trace(kTraceBus, "%d ioctl 0x%lx refused", bus, request);
            errno = ENOTTY;
            return -1;
    }
}

BoardState Simulation::state() {
    std::lock_guard<std::mutex> lock(mutex_);
    refresh_state();
    return state_;
}

int Simulation::set_state(const BoardState& state) {
    BoardState complete = state;
    complete.output_dbm = output_dbm(state);
    return save_state(state_path_, complete);
}

int Simulation::update_state(const std::function<void(BoardState*)>& change) {
    return board_sim::update_state(state_path_, [&](BoardState* state) {
        change(state);
        state->output_dbm = output_dbm(*state);
    });
}

void Simulation::set_local_faults(const std::vector<Fault>& faults) {
    std::lock_guard<std::mutex> lock(mutex_);
    local_faults_.clear();
    for (const Fault& fault : faults)
        local_faults_.push_back({fault, 0});
}

void Simulation::start_recording() {
    std::lock_guard<std::mutex> lock(mutex_);
    recording_ = true;
    traffic_.clear();
}

std::vector<Transfer> Simulation::recorded_traffic() {
    std::lock_guard<std::mutex> lock(mutex_);
    return traffic_;
}

void Simulation::queue_adc_buffer(const SimAds7142::Buffer& entries) {
    std::lock_guard<std::mutex> lock(mutex_);
    adc_.queue_buffer(entries);
}

void Simulation::clear_adc_queue() {
    std::lock_guard<std::mutex> lock(mutex_);
    adc_.clear_queue();
}

void Simulation::set_temperature_word(int word) {
    std::lock_guard<std::mutex> lock(mutex_);
    temperature_override_ = word < 0 ? -1 : (word & 0xFFFF);
}

int Simulation::adc_register(uint8_t reg) {
    std::lock_guard<std::mutex> lock(mutex_);
    return adc_.register_value(reg);
}

int Simulation::adc_sequences() {
    std::lock_guard<std::mutex> lock(mutex_);
    return adc_.sequences();
}

void Simulation::reset_board() {
    set_state(BoardState{});
    std::lock_guard<std::mutex> lock(mutex_);
    local_faults_.clear();
    recording_ = false;
    traffic_.clear();
    // Fresh devices in the same places: the table keeps pointing at these members.
    adc_ = SimAds7142([this](int channel) { return sample_mv(channel); });
    temperature_sensor_ = SimTempSensor([this] { return temperature_word(); });
    temperature_override_ = -1;
    physics_sequence_ = -1;
}

}  // namespace board_sim
