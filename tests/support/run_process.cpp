#include "run_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <elf.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace orca_test {

namespace {

long long now_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

#ifdef ORCA_TEST_EMULATOR
// The ELF machine of a program file, or EM_NONE when it is no ELF file (a script, say).
int elf_machine(const std::string& path) {
    Elf64_Ehdr header{};
    std::ifstream in(path, std::ios::binary);
    if (!in.read(reinterpret_cast<char*>(&header), sizeof header) ||
        memcmp(header.e_ident, ELFMAG, SELFMAG) != 0)
        return EM_NONE;
    return header.e_machine;  // at the same offset in 32- and 64-bit headers
}

// Where execvp would find the program: the path itself when it holds a slash.
std::string resolve_program(const std::string& program) {
    if (program.find('/') != std::string::npos)
        return program;
    const char* path = getenv("PATH");
    std::istringstream dirs(path ? path : "/usr/bin:/bin");
    for (std::string dir; std::getline(dirs, dir, ':');) {
        const std::string candidate = (dir.empty() ? "." : dir) + "/" + program;
        if (access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    return program;
}

// In a cross build the tests themselves run under an emulator (qemu-user), which cannot start
// another program of the target machine by a plain exec: such a program gets the emulator put
// in front of it. A preload is meant for the program, not for the emulator that runs it, so it
// travels as the emulator's -E option. Everything else (scripts, host tools) runs as it is.
std::vector<std::string> command_for(const std::vector<std::string>& argv) {
    const std::string program = resolve_program(argv[0]);
    if (elf_machine(program) != EM_NONE && elf_machine(program) == elf_machine("/proc/self/exe")) {
        std::vector<std::string> command;
        std::istringstream words(ORCA_TEST_EMULATOR);
        for (std::string word; std::getline(words, word, '|');)
            command.push_back(word);
        if (const char* preload = getenv("LD_PRELOAD")) {
            command.push_back("-E");
            command.push_back(std::string("LD_PRELOAD=") + preload);
            unsetenv("LD_PRELOAD");
        }
        command.insert(command.end(), {"-0", argv[0], program});
        command.insert(command.end(), argv.begin() + 1, argv.end());
        return command;
    }
    return argv;
}
#else
std::vector<std::string> command_for(const std::vector<std::string>& argv) {
    return argv;
}
#endif

}  // namespace

ProcessResult run_process(const std::vector<std::string>& argv, const ProcessOptions& options) {
    int out_pipe[2], err_pipe[2], in_pipe[2];
    if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0 ||
        pipe2(in_pipe, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
    if (pid == 0) {
        dup2(in_pipe[0], 0);
        dup2(out_pipe[1], 1);
        dup2(err_pipe[1], 2);
        for (const auto& [name, value] : options.env)
            setenv(name.c_str(), value.c_str(), 1);
        if (!options.path_prefix.empty()) {
            const char* old_path = getenv("PATH");
            std::string path = options.path_prefix + ":" + (old_path ? old_path : "/usr/bin:/bin");
            setenv("PATH", path.c_str(), 1);
        }
        if (!options.working_dir.empty() && chdir(options.working_dir.c_str()) != 0)
            _exit(126);
        const std::vector<std::string> command = command_for(argv);
        std::vector<char*> args;
        for (const auto& a : command)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    close(in_pipe[0]);
    close(out_pipe[1]);
    close(err_pipe[1]);

    // Feed standard input in one go; the texts the tests send are small.
    signal(SIGPIPE, SIG_IGN);
    if (!options.stdin_text.empty()) {
        ssize_t ignored = write(in_pipe[1], options.stdin_text.data(), options.stdin_text.size());
        (void)ignored;
    }
    close(in_pipe[1]);

    ProcessResult result;
    pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open_count = 2;
    // Every program started under the emulator pays its start-up again (a full calibration
    // starts the service's command once per level), so emulated runs get longer.
    const long long deadline = now_ms() + options.timeout_ms * (under_emulator() ? 5LL : 1LL);
    bool killed = false;
    bool stopped = false;
    while (open_count > 0) {
        long long left = deadline - now_ms();
        if (left <= 0) {
            kill(pid, SIGKILL);
            killed = true;
            break;
        }
        int ready = poll(fds, 2, static_cast<int>(left));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0)
            break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0)
                continue;
            char buffer[4096];
            ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                sinks[i]->append(buffer, static_cast<size_t>(n));
                if (!stopped && options.stop_when && options.stop_when(result)) {
                    kill(pid, options.stop_signal);
                    stopped = true;
                }
            } else {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open_count;
            }
        }
    }
    for (auto& f : fds) {
        if (f.fd >= 0)
            close(f.fd);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        result.exit_status = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.exit_status = 128 + WTERMSIG(status);
    }
    if (killed)
        result.err += "\n[run_process: killed after timeout]\n";
    return result;
}

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/orca-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write_file(const std::string& name, const std::string& content,
                                bool executable) const {
    std::string full = path_ + "/" + name;
    std::filesystem::create_directories(std::filesystem::path(full).parent_path());
    std::ofstream(full, std::ios::binary) << content;
    if (executable)
        chmod(full.c_str(), 0755);
    return full;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool under_emulator() {
#ifdef ORCA_TEST_EMULATOR
    return true;
#else
    return false;
#endif
}

}  // namespace orca_test
