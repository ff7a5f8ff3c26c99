// orca-board-sim [options] -- COMMAND [ARGS...]
//
// Runs COMMAND on the simulated board: makes a sandbox, writes the board state and the
// detector's conversion tables into it, puts the simulated service's commands first on
// PATH, starts the vtx_latency publisher when it is built, runs COMMAND with
// libboard-sim.so preloaded, and tears everything down. The exit status is COMMAND's.
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "board-physics.h"
#include "board-state.h"
#include "foreign-exec.h"
#include "fault.h"
#include "sandbox.h"
#include "shared-block.h"

namespace {

volatile sig_atomic_t g_command_pid = 0;

void usage(FILE* out) {
    std::fprintf(out,
                 "Usage: orca-board-sim [options] -- COMMAND [ARGS...]\n"
                 "  --set KEY=VALUE   board state, e.g. --set adc_bus=3 --set buses=0,1,2,3\n"
                 "  --board NAME      a real board: ideal (default), typical, saturating,\n"
                 "                    stuck-index, dead-pa, hot, noisy-detector, swapped-card\n"
                 "  --board-seed N    draw the board's unit spreads from the population (seed N)\n"
                 "  --fault SPEC      a bus fault, op:address[:reg=R]:nth[:count[:short]]\n"
                 "  --time-scale X    sleeps wait X times their length in real time (0: instant)\n"
                 "  --root DIR        use DIR as the sandbox and keep it afterwards\n"
                 "  --report FILE     write virtual time, unexpected frames and the truth to FILE\n"
                 "  --no-publisher    run without the vtx_latency publisher (service not running)\n"
                 "  --help            show this text\n");
}

std::string own_directory() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0)
        return ".";
    path[length] = '\0';
    std::string text(path);
    return text.substr(0, text.rfind('/'));
}

bool is_executable(const std::string& path) {
    return access(path.c_str(), X_OK) == 0;
}

void forward_signal(int signal_number) {
    if (g_command_pid > 0)
        kill(g_command_pid, signal_number);
}

std::string with_option(const char* existing, const std::string& option) {
    if (existing == nullptr || *existing == '\0')
        return option;
    return std::string(existing) + ":" + option;
}

// The environment of every process on the simulated board.
void set_simulation_environment(const std::string& root, const std::string& preload,
                                const std::string& time_scale) {
    const char* existing_preload = std::getenv("LD_PRELOAD");
    std::string preload_list = preload;
    if (existing_preload != nullptr && *existing_preload != '\0')
        preload_list += ":" + std::string(existing_preload);
    setenv("LD_PRELOAD", preload_list.c_str(), 1);
    setenv("ORCA_SIM_ROOT", root.c_str(), 1);
    setenv("ORCA_SIM_TIME_SCALE", time_scale.c_str(), 1);
    unsetenv("ORCA_SIM_AUTO_SANDBOX");
    unsetenv("ORCA_SIM_REAL_TIME");
    // Sanitized programs insist on their runtime coming first; the preload only wraps
    // libc calls and takes no allocator, so the order does not matter here.
    setenv("ASAN_OPTIONS",
           with_option(std::getenv("ASAN_OPTIONS"), "verify_asan_link_order=0").c_str(), 1);
    std::string path = root + "/bin";
    const char* host_path = std::getenv("PATH");
    path += ":" + std::string(host_path ? host_path : "/usr/local/bin:/usr/bin:/bin");
    // i2cdetect lives in sbin, which a user's PATH may lack.
    for (const char* dir : {"/usr/sbin", "/sbin"}) {
        if (path.find(std::string(":") + dir + ":") == std::string::npos &&
            path.compare(path.size() - std::strlen(dir), std::strlen(dir), dir) != 0)
            path += std::string(":") + dir;
    }
    setenv("PATH", path.c_str(), 1);
}

pid_t start_program(const std::vector<std::string>& argv, bool real_time) {
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    if (real_time)
        setenv("ORCA_SIM_REAL_TIME", "1", 1);
    std::vector<char*> arguments;
    for (const std::string& argument : argv)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    // orca-board-sim itself carries no preload: a program of another machine is started
    // through its emulator here, as the preload does for everything below.
    char program[PATH_MAX];
    if (board_sim::find_program(arguments[0], program, sizeof program)) {
        if (const char* emulator = board_sim::emulator_for(program)) {
            std::vector<char*> emulated =
                board_sim::emulated_arguments(emulator, program, arguments.data());
            execv(emulator, emulated.data());
        }
    }
    execvp(arguments[0], arguments.data());
    std::fprintf(stderr, "orca-board-sim: cannot run %s: %s\n", arguments[0], std::strerror(errno));
    _exit(127);
}

int wait_status(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return 127;
    }
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    return 128 + WTERMSIG(status);
}

int write_report(const std::string& path, const std::string& root,
                 const board_sim::SharedBlock* block) {
    // The truth at the end of the run: what reaches the antenna and how warm the board is.
    board_sim::BoardState state;
    board_sim::BoardPhysics physics;
    std::string error;
    if (board_sim::load_state(board_sim::state_file_path(root), &state) != 0 ||
        board_sim::read_physics(state, &physics, &error) != 0) {
        std::fprintf(stderr, "orca-board-sim: cannot read the board state for the report\n");
        return -1;
    }
    const uint64_t now = board_sim::virtual_now_ns(root);
    FILE* file = std::fopen(path.c_str(), "w");
    if (block == nullptr || file == nullptr) {
        std::fprintf(stderr, "orca-board-sim: cannot write the report %s: %s\n", path.c_str(),
                     std::strerror(errno));
        if (file != nullptr)
            std::fclose(file);
        return -1;
    }
    std::fprintf(file, "wait_ns=%llu\nbus_ns=%llu\nunexpected_frames=%llu\n",
                 static_cast<unsigned long long>(block->wait_ns.load()),
                 static_cast<unsigned long long>(block->bus_ns.load()),
                 static_cast<unsigned long long>(block->unexpected_frames.load()));
    std::fprintf(file, "true_output_dbm=%.3f\ntemperature_c=%.3f\nboard=%s\nseed=%u\n",
                 board_sim::true_output_dbm(state, physics, now),
                 board_sim::board_temperature_c(state, physics, now), physics.board.c_str(),
                 state.seed);
    return std::fclose(file) == 0 ? 0 : -1;
}

// Frames that no simulated device understood mean that the command or the simulator
// misbehaved; say so whether or not a report was asked for.
void warn_unexpected_frames(const board_sim::SharedBlock* block) {
    const unsigned long long count = block ? block->unexpected_frames.load() : 0;
    if (count > 0)
        std::fprintf(stderr,
                     "orca-board-sim: %llu frame%s that no simulated device understood "
                     "(ORCA_SIM_TRACE=bus shows them)\n",
                     count, count == 1 ? "" : "s");
}

}  // namespace

int main(int argc, char* argv[]) {
    board_sim::BoardState state;
    std::string root;
    std::string report;
    std::string time_scale = "0";
    std::vector<std::string> faults;
    std::vector<std::string> settings;
    std::string board = "ideal";
    long board_seed = -1;
    bool board_given = false;
    bool with_publisher = true;
    int first_command = -1;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (option == "--") {
            first_command = i + 1;
            break;
        }
        if (option == "--help") {
            usage(stdout);
            return 0;
        }
        if (option == "--no-publisher") {
            with_publisher = false;
            continue;
        }
        if (value == nullptr ||
            (option != "--set" && option != "--fault" && option != "--time-scale" &&
             option != "--root" && option != "--report" && option != "--board" &&
             option != "--board-seed")) {
            std::fprintf(stderr, "orca-board-sim: unknown option or missing value: %s\n",
                         option.c_str());
            usage(stderr);
            return 2;
        }
        ++i;
        std::string error;
        if (option == "--set")
            settings.push_back(value);
        if (option == "--board") {
            board = value;
            board_given = true;
        }
        if (option == "--board-seed") {
            char* end = nullptr;
            errno = 0;
            board_seed = std::strtol(value, &end, 10);
            if (errno != 0 || *end != '\0' || *value == '\0' || board_seed < 0 ||
                board_seed > 2147483647L) {
                std::fprintf(stderr, "orca-board-sim: bad board seed %s\n", value);
                return 2;
            }
        }
        if (option == "--fault") {
            std::vector<board_sim::Fault> parsed;
            if (board_sim::parse_faults(value, &parsed, &error) != 0) {
                std::fprintf(stderr, "orca-board-sim: %s\n", error.c_str());
                return 2;
            }
            faults.push_back(value);
        }
        if (option == "--time-scale") {
            char* end = nullptr;
            const double scale = std::strtod(value, &end);
            if (*end != '\0' || scale < 0.0) {
                std::fprintf(stderr, "orca-board-sim: bad time scale %s\n", value);
                return 2;
            }
            time_scale = value;
        }
        if (option == "--root")
            root = value;
        if (option == "--report")
            report = value;
    }
    if (first_command < 0 || first_command >= argc) {
        usage(stderr);
        return 2;
    }
    // The profile first, so that --set can change any of its values.
    std::string error;
    if (board_seed >= 0 && board == "ideal" && !board_given)
        board = "typical";
    if (board_sim::apply_board_profile(board, board_seed, &state, &error) != 0) {
        std::fprintf(stderr, "orca-board-sim: --board: %s\n", error.c_str());
        return 2;
    }
    for (const std::string& setting : settings) {
        if (board_sim::apply_state_line(&state, setting, &error) != 0) {
            std::fprintf(stderr, "orca-board-sim: --set %s: %s\n", setting.c_str(), error.c_str());
            return 2;
        }
    }
    board_sim::BoardPhysics physics;
    if (board_sim::read_physics(state, &physics, &error) != 0) {
        std::fprintf(stderr, "orca-board-sim: %s\n", error.c_str());
        return 2;
    }
    for (const std::string& fault : faults)
        state.faults += (state.faults.empty() ? "" : ";") + fault;

    const bool keep_sandbox = !root.empty();
    if (keep_sandbox) {
        if (mkdir(root.c_str(), 0755) != 0 && errno != EEXIST) {
            std::fprintf(stderr, "orca-board-sim: cannot create %s: %s\n", root.c_str(),
                         std::strerror(errno));
            return 2;
        }
    } else {
        char name[] = "/tmp/obs-XXXXXX";
        if (mkdtemp(name) == nullptr) {
            std::fprintf(stderr, "orca-board-sim: cannot create a sandbox: %s\n",
                         std::strerror(errno));
            return 2;
        }
        root = name;
    }
    if (board_sim::prepare_sandbox(root, state) != 0) {
        if (!keep_sandbox)
            board_sim::remove_tree(root);
        return 2;
    }

    // The simulated service's commands, first on PATH.
    const std::string here = own_directory();
    for (const char* tool : {"orca-configure-vtx", "orca-send-command"}) {
        const std::string source = here + "/" + tool;
        const std::string link_path = root + "/bin/" + tool;
        unlink(link_path.c_str());
        if (is_executable(source) && symlink(source.c_str(), link_path.c_str()) != 0)
            std::fprintf(stderr, "orca-board-sim: cannot link %s: %s\n", tool,
                         std::strerror(errno));
    }

    // The MP script stand-in, unless the board is to lack it.
    const auto mp_start = state.extra.find("mp_start");
    if ((mp_start == state.extra.end() || mp_start->second != "missing") &&
        is_executable(here + "/orca-sim-mp"))
        board_sim::install_mp_script(root, here + "/orca-sim-mp");

    // "$LIB" is left for the dynamic linker: each program loads the preload of its own machine.
    set_simulation_environment(root, here + "/$LIB/libboard-sim.so", time_scale);
    pid_t publisher = -1;
    const std::string publisher_path = here + "/orca-sim-vtx-publisher";
    if (with_publisher && is_executable(publisher_path)) {
        publisher = start_program(
            {publisher_path, "--state", board_sim::state_file_path(root), "--period-ms", "100"},
            true);
    }

    signal(SIGINT, forward_signal);
    signal(SIGTERM, forward_signal);
    signal(SIGHUP, forward_signal);
    std::vector<std::string> command(argv + first_command, argv + argc);
    const pid_t command_pid = start_program(command, false);
    g_command_pid = command_pid;
    const int status = command_pid > 0 ? wait_status(command_pid) : 127;
    g_command_pid = 0;

    if (publisher > 0) {
        kill(publisher, SIGTERM);
        wait_status(publisher);
    }
    const board_sim::SharedBlock* block = board_sim::map_shared_block(root, false);
    warn_unexpected_frames(block);
    if (!report.empty() && write_report(report, root, block) != 0 && status == 0)
        return 2;
    if (!keep_sandbox)
        board_sim::remove_tree(root);
    return status;
}
