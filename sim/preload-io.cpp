// The libc calls that libboard-sim.so takes over for file names and descriptors: the
// board's fixed paths go to the sandbox, "/dev/i2c-N" opens a simulated bus, and read,
// write, ioctl and close on such a descriptor reach the simulated targets. Everything
// else passes through to the next definition (libc, or a sanitizer runtime before it).
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <spawn.h>
#include <stdarg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "foreign-exec.h"
#include "preload-trace.h"
#include "simulation.h"

using board_sim::kTraceBus;
using board_sim::kTracePath;
using board_sim::Simulation;
using board_sim::trace;

extern "C" {
int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
int __openat_2(int dirfd, const char* path, int flags);
int __openat64_2(int dirfd, const char* path, int flags);
ssize_t __read_chk(int fd, void* buffer, size_t length, size_t buffer_length);
}

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// The sandboxed form of a path, held for the duration of one call.
class MappedPath {
  public:
    explicit MappedPath(const char* path, int dirfd = AT_FDCWD) : path_(path) {
        Simulation* simulation = Simulation::get();
        if (simulation && simulation->map_path(path, buffer_, sizeof buffer_, dirfd)) {
            path_ = buffer_;
            trace(kTracePath, "%s %s -> %s", board_sim::current_call(), path,
                  buffer_[0] ? buffer_ : "(too long, refused)");
        }
    }
    operator const char*() const { return path_; }
    bool mapped() const { return path_ == buffer_; }
    const char* c_str() const { return path_; }

  private:
    const char* path_;
    char buffer_[PATH_MAX];
};

// Only absolute names can be i2c-dev nodes.
const char* absolute_or_null(const char* path) {
    return (path != nullptr && path[0] == '/') ? path : nullptr;
}

bool needs_mode(int flags) {
    return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE;
}

// Simulated i2c nodes: opened here, or refused as missing. Returns true when handled.
bool open_i2c_node(const char* path, int flags, int* result) {
    Simulation* simulation = Simulation::get();
    int bus = -1;
    if (simulation == nullptr)
        return false;
    switch (simulation->classify_node(path, &bus)) {
        case Simulation::NodeKind::kPresent:
            *result = simulation->open_bus(bus, flags);
            return true;
        case Simulation::NodeKind::kAbsent:
            trace(kTraceBus, "%s %s: no such bus", board_sim::current_call(), path);
            errno = ENOENT;
            *result = -1;
            return true;
        case Simulation::NodeKind::kNotI2c:
            return false;
    }
    return false;
}

// stat of a simulated node: a character device of the i2c-dev major.
bool stat_i2c_node(const char* path, struct stat* buffer, int* result) {
    Simulation* simulation = Simulation::get();
    int bus = -1;
    if (simulation == nullptr)
        return false;
    switch (simulation->classify_node(path, &bus)) {
        case Simulation::NodeKind::kPresent:
            std::memset(buffer, 0, sizeof *buffer);
            buffer->st_mode = S_IFCHR | 0660;
            buffer->st_rdev = makedev(89, bus);
            buffer->st_nlink = 1;
            buffer->st_blksize = 4096;
            trace(kTraceBus, "%s %s: bus %d", board_sim::current_call(), path, bus);
            *result = 0;
            return true;
        case Simulation::NodeKind::kAbsent:
            trace(kTraceBus, "%s %s: no such bus", board_sim::current_call(), path);
            errno = ENOENT;
            *result = -1;
            return true;
        case Simulation::NodeKind::kNotI2c:
            return false;
    }
    return false;
}

bool access_i2c_node(const char* path, int mode, int* result) {
    Simulation* simulation = Simulation::get();
    int bus = -1;
    if (simulation == nullptr)
        return false;
    switch (simulation->classify_node(path, &bus)) {
        case Simulation::NodeKind::kPresent:
            trace(kTraceBus, "%s %s: bus %d", board_sim::current_call(), path, bus);
            *result = (mode & X_OK) ? -1 : 0;
            if (*result != 0)
                errno = EACCES;
            return true;
        case Simulation::NodeKind::kAbsent:
            trace(kTraceBus, "%s %s: no such bus", board_sim::current_call(), path);
            errno = ENOENT;
            *result = -1;
            return true;
        case Simulation::NodeKind::kNotI2c:
            return false;
    }
    return false;
}

bool is_i2c_request(unsigned long request) {
    switch (request) {
        case I2C_RETRIES:
        case I2C_TIMEOUT:
        case I2C_SLAVE:
        case I2C_TENBIT:
        case I2C_FUNCS:
        case I2C_SLAVE_FORCE:
        case I2C_RDWR:
        case I2C_PEC:
        case I2C_SMBUS:
            return true;
        default:
            return false;
    }
}

// On the board every i2c-dev node is simulated, so an i2c-dev request on any other
// descriptor gets the kernel's answer for it: EBADF when it is not open for I/O (closed, or
// an O_PATH placeholder), else ENOTTY. qemu-user would answer ENOSYS to the request itself,
// before it looks at the descriptor.
int i2c_request_on_other_descriptor(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    errno = (flags < 0 || (flags & O_PATH) != 0) ? EBADF : ENOTTY;
    return -1;
}

std::vector<char*> collect_arguments(const char* first, va_list* arguments) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(first));
    while (argv.back() != nullptr)
        argv.push_back(va_arg(*arguments, char*));
    return argv;
}

// An AF_UNIX address under a sandboxed prefix, rewritten into `mapped`. Returns false
// when the address is left as it is; sets *too_long when the sandboxed path does not fit.
bool map_socket_address(const sockaddr* address, socklen_t length, sockaddr_un* mapped,
                        socklen_t* mapped_length, bool* too_long) {
    *too_long = false;
    if (address == nullptr || address->sa_family != AF_UNIX ||
        length <= offsetof(sockaddr_un, sun_path))
        return false;
    const auto* unix_address = reinterpret_cast<const sockaddr_un*>(address);
    char path[sizeof unix_address->sun_path + 1] = {};
    std::memcpy(
        path, unix_address->sun_path,
        std::min<size_t>(length - offsetof(sockaddr_un, sun_path), sizeof unix_address->sun_path));
    if (path[0] != '/')
        return false;  // abstract and relative names are not the board's paths
    MappedPath target(path);
    if (!target.mapped())
        return false;
    if (std::strlen(target) == 0 || std::strlen(target) >= sizeof mapped->sun_path) {
        *too_long = true;
        return true;
    }
    std::memset(mapped, 0, sizeof *mapped);
    mapped->sun_family = AF_UNIX;
    std::strcpy(mapped->sun_path, target);
    *mapped_length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(target) + 1);
    return true;
}

}  // namespace

// ---- open and friends ----

EXPORT int open(const char* path, int flags, ...) {
    REAL(open);
    mode_t mode = 0;
    if (needs_mode(flags)) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    int result = -1;
    if (open_i2c_node(path, flags, &result))
        return result;
    return real_open(MappedPath(path), flags, mode);
}

EXPORT int open64(const char* path, int flags, ...) {
    REAL(open64);
    mode_t mode = 0;
    if (needs_mode(flags)) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    int result = -1;
    if (open_i2c_node(path, flags, &result))
        return result;
    return real_open64(MappedPath(path), flags, mode);
}

EXPORT int __open_2(const char* path, int flags) {
    REAL(__open_2);
    int result = -1;
    if (open_i2c_node(path, flags, &result))
        return result;
    return real___open_2(MappedPath(path), flags);
}

EXPORT int __open64_2(const char* path, int flags) {
    REAL(__open64_2);
    int result = -1;
    if (open_i2c_node(path, flags, &result))
        return result;
    return real___open64_2(MappedPath(path), flags);
}

EXPORT int openat(int dirfd, const char* path, int flags, ...) {
    REAL(openat);
    mode_t mode = 0;
    if (needs_mode(flags)) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    int result = -1;
    if (absolute_or_null(path) && open_i2c_node(path, flags, &result))
        return result;
    return real_openat(dirfd, MappedPath(path, dirfd), flags, mode);
}

EXPORT int openat64(int dirfd, const char* path, int flags, ...) {
    REAL(openat64);
    mode_t mode = 0;
    if (needs_mode(flags)) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    int result = -1;
    if (absolute_or_null(path) && open_i2c_node(path, flags, &result))
        return result;
    return real_openat64(dirfd, MappedPath(path, dirfd), flags, mode);
}

EXPORT int __openat_2(int dirfd, const char* path, int flags) {
    REAL(__openat_2);
    int result = -1;
    if (absolute_or_null(path) && open_i2c_node(path, flags, &result))
        return result;
    return real___openat_2(dirfd, MappedPath(path, dirfd), flags);
}

EXPORT int __openat64_2(int dirfd, const char* path, int flags) {
    REAL(__openat64_2);
    int result = -1;
    if (absolute_or_null(path) && open_i2c_node(path, flags, &result))
        return result;
    return real___openat64_2(dirfd, MappedPath(path, dirfd), flags);
}

EXPORT int creat(const char* path, mode_t mode) {
    REAL(creat);
    return real_creat(MappedPath(path), mode);
}

EXPORT int creat64(const char* path, mode_t mode) {
    REAL(creat64);
    return real_creat64(MappedPath(path), mode);
}

EXPORT FILE* fopen(const char* path, const char* mode) {
    REAL(fopen);
    return real_fopen(MappedPath(path), mode);
}

EXPORT FILE* fopen64(const char* path, const char* mode) {
    REAL(fopen64);
    return real_fopen64(MappedPath(path), mode);
}

EXPORT FILE* freopen(const char* path, const char* mode, FILE* stream) {
    REAL(freopen);
    return real_freopen(path ? MappedPath(path).c_str() : nullptr, mode, stream);
}

EXPORT FILE* freopen64(const char* path, const char* mode, FILE* stream) {
    REAL(freopen64);
    MappedPath mapped(path);
    return real_freopen64(path ? mapped.c_str() : nullptr, mode, stream);
}

EXPORT DIR* opendir(const char* path) {
    REAL(opendir);
    return real_opendir(MappedPath(path));
}

// ---- descriptors of simulated buses ----

EXPORT ssize_t read(int fd, void* buffer, size_t length) {
    REAL(read);
    if (Simulation::is_bus_fd(fd)) {
        if (Simulation* simulation = Simulation::get())
            return simulation->bus_read(fd, buffer, length);
    }
    return real_read(fd, buffer, length);
}

EXPORT ssize_t __read_chk(int fd, void* buffer, size_t length, size_t buffer_length) {
    REAL(__read_chk);
    if (Simulation::is_bus_fd(fd) && length <= buffer_length) {
        if (Simulation* simulation = Simulation::get())
            return simulation->bus_read(fd, buffer, length);
    }
    return real___read_chk(fd, buffer, length, buffer_length);
}

EXPORT ssize_t write(int fd, const void* buffer, size_t length) {
    REAL(write);
    if (Simulation::is_bus_fd(fd)) {
        if (Simulation* simulation = Simulation::get())
            return simulation->bus_write(fd, buffer, length);
    }
    return real_write(fd, buffer, length);
}

EXPORT int ioctl(int fd, unsigned long request, ...) noexcept {
    REAL(ioctl);
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (Simulation::is_bus_fd(fd)) {
        if (Simulation* simulation = Simulation::get())
            return simulation->bus_ioctl(fd, request, argument);
    }
    if (Simulation::get() != nullptr && is_i2c_request(request))
        return i2c_request_on_other_descriptor(fd);
    return real_ioctl(fd, request, argument);
}

EXPORT int close(int fd) {
    REAL(close);
    if (Simulation::is_bus_fd(fd)) {
        if (Simulation* simulation = Simulation::get())
            simulation->forget_fd(fd);
    }
    return real_close(fd);
}

// dup2 and dup3 onto a bus descriptor close that bus, as the kernel does for a real one.
EXPORT int dup2(int old_fd, int new_fd) noexcept {
    REAL(dup2);
    const bool bus = old_fd != new_fd && Simulation::is_bus_fd(new_fd);
    const int result = real_dup2(old_fd, new_fd);
    if (result >= 0 && bus) {
        if (Simulation* simulation = Simulation::get())
            simulation->forget_fd(new_fd);
    }
    return result;
}

EXPORT int dup3(int old_fd, int new_fd, int flags) noexcept {
    REAL(dup3);
    const bool bus = old_fd != new_fd && Simulation::is_bus_fd(new_fd);
    const int result = real_dup3(old_fd, new_fd, flags);
    if (result >= 0 && bus) {
        if (Simulation* simulation = Simulation::get())
            simulation->forget_fd(new_fd);
    }
    return result;
}

// ---- file names ----

EXPORT int access(const char* path, int mode) noexcept {
    REAL(access);
    int result = -1;
    if (access_i2c_node(path, mode, &result))
        return result;
    return real_access(MappedPath(path), mode);
}

EXPORT int euidaccess(const char* path, int mode) noexcept {
    REAL(euidaccess);
    int result = -1;
    if (access_i2c_node(path, mode, &result))
        return result;
    return real_euidaccess(MappedPath(path), mode);
}

EXPORT int eaccess(const char* path, int mode) noexcept {
    REAL(eaccess);
    int result = -1;
    if (access_i2c_node(path, mode, &result))
        return result;
    return real_eaccess(MappedPath(path), mode);
}

EXPORT int faccessat(int dirfd, const char* path, int mode, int flags) noexcept {
    REAL(faccessat);
    int result = -1;
    if (absolute_or_null(path) && access_i2c_node(path, mode, &result))
        return result;
    return real_faccessat(dirfd, MappedPath(path, dirfd), mode, flags);
}

EXPORT int stat(const char* path, struct stat* buffer) noexcept {
    REAL(stat);
    int result = -1;
    if (stat_i2c_node(path, buffer, &result))
        return result;
    return real_stat(MappedPath(path), buffer);
}

EXPORT int stat64(const char* path, struct stat64* buffer) noexcept {
    REAL(stat64);
    int result = -1;
    static_assert(sizeof(struct stat) == sizeof(struct stat64), "64-bit targets only");
    if (stat_i2c_node(path, reinterpret_cast<struct stat*>(buffer), &result))
        return result;
    return real_stat64(MappedPath(path), buffer);
}

EXPORT int lstat(const char* path, struct stat* buffer) noexcept {
    REAL(lstat);
    int result = -1;
    if (stat_i2c_node(path, buffer, &result))
        return result;
    return real_lstat(MappedPath(path), buffer);
}

EXPORT int lstat64(const char* path, struct stat64* buffer) noexcept {
    REAL(lstat64);
    int result = -1;
    if (stat_i2c_node(path, reinterpret_cast<struct stat*>(buffer), &result))
        return result;
    return real_lstat64(MappedPath(path), buffer);
}

EXPORT int fstatat(int dirfd, const char* path, struct stat* buffer, int flags) noexcept {
    REAL(fstatat);
    int result = -1;
    if (absolute_or_null(path) && stat_i2c_node(path, buffer, &result))
        return result;
    return real_fstatat(dirfd, MappedPath(path, dirfd), buffer, flags);
}

EXPORT int fstatat64(int dirfd, const char* path, struct stat64* buffer, int flags) noexcept {
    REAL(fstatat64);
    int result = -1;
    if (absolute_or_null(path) &&
        stat_i2c_node(path, reinterpret_cast<struct stat*>(buffer), &result))
        return result;
    return real_fstatat64(dirfd, MappedPath(path, dirfd), buffer, flags);
}

EXPORT int statx(int dirfd, const char* path, int flags, unsigned int mask,
                 struct statx* buffer) noexcept {
    REAL(statx);
    Simulation* simulation = Simulation::get();
    int bus = -1;
    if (simulation && absolute_or_null(path)) {
        switch (simulation->classify_node(path, &bus)) {
            case Simulation::NodeKind::kPresent:
                std::memset(buffer, 0, sizeof *buffer);
                buffer->stx_mask = STATX_TYPE | STATX_MODE;
                buffer->stx_mode = S_IFCHR | 0660;
                buffer->stx_rdev_major = 89;
                buffer->stx_rdev_minor = static_cast<unsigned>(bus);
                return 0;
            case Simulation::NodeKind::kAbsent:
                errno = ENOENT;
                return -1;
            case Simulation::NodeKind::kNotI2c:
                break;
        }
    }
    return real_statx(dirfd, MappedPath(path, dirfd), flags, mask, buffer);
}

EXPORT int mkdir(const char* path, mode_t mode) noexcept {
    REAL(mkdir);
    return real_mkdir(MappedPath(path), mode);
}

EXPORT int mkdirat(int dirfd, const char* path, mode_t mode) noexcept {
    REAL(mkdirat);
    return real_mkdirat(dirfd, MappedPath(path, dirfd), mode);
}

EXPORT int rmdir(const char* path) noexcept {
    REAL(rmdir);
    return real_rmdir(MappedPath(path));
}

EXPORT int unlink(const char* path) noexcept {
    REAL(unlink);
    return real_unlink(MappedPath(path));
}

EXPORT int unlinkat(int dirfd, const char* path, int flags) noexcept {
    REAL(unlinkat);
    return real_unlinkat(dirfd, MappedPath(path, dirfd), flags);
}

EXPORT int remove(const char* path) noexcept {
    REAL(remove);
    return real_remove(MappedPath(path));
}

EXPORT int rename(const char* from, const char* to) noexcept {
    REAL(rename);
    return real_rename(MappedPath(from), MappedPath(to));
}

EXPORT int renameat(int from_dir, const char* from, int to_dir, const char* to) noexcept {
    REAL(renameat);
    return real_renameat(from_dir, MappedPath(from, from_dir), to_dir, MappedPath(to, to_dir));
}

EXPORT int renameat2(int from_dir, const char* from, int to_dir, const char* to,
                     unsigned int flags) noexcept {
    REAL(renameat2);
    return real_renameat2(from_dir, MappedPath(from, from_dir), to_dir, MappedPath(to, to_dir),
                          flags);
}

EXPORT int link(const char* from, const char* to) noexcept {
    REAL(link);
    return real_link(MappedPath(from), MappedPath(to));
}

EXPORT int symlink(const char* target, const char* path) noexcept {
    REAL(symlink);
    // The link's text is what the caller wrote; only where it is made is mapped.
    return real_symlink(target, MappedPath(path));
}

EXPORT ssize_t readlink(const char* path, char* buffer, size_t size) noexcept {
    REAL(readlink);
    return real_readlink(MappedPath(path), buffer, size);
}

EXPORT int chmod(const char* path, mode_t mode) noexcept {
    REAL(chmod);
    return real_chmod(MappedPath(path), mode);
}

EXPORT int chown(const char* path, uid_t owner, gid_t group) noexcept {
    REAL(chown);
    return real_chown(MappedPath(path), owner, group);
}

EXPORT int truncate(const char* path, off_t length) noexcept {
    REAL(truncate);
    return real_truncate(MappedPath(path), length);
}

EXPORT int mkfifo(const char* path, mode_t mode) noexcept {
    REAL(mkfifo);
    return real_mkfifo(MappedPath(path), mode);
}

EXPORT int utimensat(int dirfd, const char* path, const struct timespec times[2],
                     int flags) noexcept {
    REAL(utimensat);
    return real_utimensat(dirfd, MappedPath(path, dirfd), times, flags);
}

EXPORT char* realpath(const char* path, char* resolved) noexcept {
    REAL(realpath);
    return real_realpath(MappedPath(path), resolved);
}

EXPORT int chdir(const char* path) noexcept {
    REAL(chdir);
    return real_chdir(MappedPath(path));
}

// Temporary files: the template is filled in the sandbox and the chosen name copied back.
EXPORT int mkstemp(char* name) {
    REAL(mkstemp);
    MappedPath mapped(name);
    if (!mapped.mapped())
        return real_mkstemp(name);
    std::vector<char> copy(mapped.c_str(), mapped.c_str() + std::strlen(mapped) + 1);
    const int fd = real_mkstemp(copy.data());
    if (fd >= 0)
        std::memcpy(name, copy.data() + (copy.size() - 1 - std::strlen(name)), std::strlen(name));
    return fd;
}

EXPORT int mkostemp(char* name, int flags) {
    REAL(mkostemp);
    MappedPath mapped(name);
    if (!mapped.mapped())
        return real_mkostemp(name, flags);
    std::vector<char> copy(mapped.c_str(), mapped.c_str() + std::strlen(mapped) + 1);
    const int fd = real_mkostemp(copy.data(), flags);
    if (fd >= 0)
        std::memcpy(name, copy.data() + (copy.size() - 1 - std::strlen(name)), std::strlen(name));
    return fd;
}

EXPORT char* mkdtemp(char* name) noexcept {
    REAL(mkdtemp);
    MappedPath mapped(name);
    if (!mapped.mapped())
        return real_mkdtemp(name);
    std::vector<char> copy(mapped.c_str(), mapped.c_str() + std::strlen(mapped) + 1);
    if (real_mkdtemp(copy.data()) == nullptr)
        return nullptr;
    std::memcpy(name, copy.data() + (copy.size() - 1 - std::strlen(name)), std::strlen(name));
    return name;
}

// ---- programs: at fixed paths (the MP script), and of another machine ----

namespace {

// Starts `program` (already mapped) through the emulator of its machine when the kernel cannot
// start it; returns only when that is not so, or with the exec's failure.
int exec_through_emulator(const char* program, char* const argv[], char* const envp[],
                          bool* handled) {
    REAL(execve);
    const char* emulator = board_sim::emulator_for(program);
    *handled = emulator != nullptr;
    if (emulator == nullptr)
        return -1;
    trace(board_sim::kTraceExec, "%s %s through %s", board_sim::current_call(), program, emulator);
    std::vector<char*> arguments = board_sim::emulated_arguments(emulator, program, argv);
    return real_execve(emulator, arguments.data(), envp);
}

// The program file that `file` names for execvp and posix_spawnp, mapped into the sandbox.
bool find_mapped_program(const char* file, char* buffer, size_t size) {
    char found[PATH_MAX];
    if (!board_sim::find_program(file, found, sizeof found))
        return false;
    MappedPath mapped(found);
    if (std::strlen(mapped) >= size)
        return false;
    std::strcpy(buffer, mapped);
    return true;
}

int spawn_through_emulator(pid_t* pid, const char* program,
                           const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attributes, char* const argv[],
                           char* const envp[], bool* handled) {
    REAL(posix_spawn);
    const char* emulator = board_sim::emulator_for(program);
    *handled = emulator != nullptr;
    if (emulator == nullptr)
        return 0;
    trace(board_sim::kTraceExec, "%s %s through %s", board_sim::current_call(), program, emulator);
    std::vector<char*> arguments = board_sim::emulated_arguments(emulator, program, argv);
    return real_posix_spawn(pid, emulator, actions, attributes, arguments.data(), envp);
}

}  // namespace

EXPORT int execve(const char* path, char* const argv[], char* const envp[]) noexcept {
    REAL(execve);
    MappedPath program(path);
    bool handled = false;
    const int result = exec_through_emulator(program, argv, envp, &handled);
    if (handled)
        return result;
    return real_execve(program, argv, envp);
}

EXPORT int execv(const char* path, char* const argv[]) noexcept {
    return execve(path, argv, environ);
}

EXPORT int execvp(const char* file, char* const argv[]) noexcept {
    return execvpe(file, argv, environ);
}

EXPORT int execvpe(const char* file, char* const argv[], char* const envp[]) noexcept {
    REAL(execvpe);
    char program[PATH_MAX];
    if (find_mapped_program(file, program, sizeof program)) {
        bool handled = false;
        const int result = exec_through_emulator(program, argv, envp, &handled);
        if (handled)
            return result;
    }
    if (std::strchr(file, '/') != nullptr)
        return real_execvpe(MappedPath(file), argv, envp);
    return real_execvpe(file, argv, envp);
}

EXPORT int execl(const char* path, const char* argument, ...) noexcept {
    va_list arguments;
    va_start(arguments, argument);
    std::vector<char*> argv = collect_arguments(argument, &arguments);
    va_end(arguments);
    return execve(path, argv.data(), environ);
}

EXPORT int execle(const char* path, const char* argument, ...) noexcept {
    va_list arguments;
    va_start(arguments, argument);
    std::vector<char*> argv = collect_arguments(argument, &arguments);
    char* const* envp = va_arg(arguments, char* const*);
    va_end(arguments);
    return execve(path, argv.data(), envp);
}

EXPORT int execlp(const char* file, const char* argument, ...) noexcept {
    va_list arguments;
    va_start(arguments, argument);
    std::vector<char*> argv = collect_arguments(argument, &arguments);
    va_end(arguments);
    return execvp(file, argv.data());
}

EXPORT int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const argv[],
                       char* const envp[]) {
    REAL(posix_spawn);
    MappedPath program(path);
    bool handled = false;
    const int result =
        spawn_through_emulator(pid, program, actions, attributes, argv, envp, &handled);
    if (handled)
        return result;
    return real_posix_spawn(pid, program, actions, attributes, argv, envp);
}

EXPORT int posix_spawnp(pid_t* pid, const char* file, const posix_spawn_file_actions_t* actions,
                        const posix_spawnattr_t* attributes, char* const argv[],
                        char* const envp[]) {
    REAL(posix_spawnp);
    char program[PATH_MAX];
    if (find_mapped_program(file, program, sizeof program)) {
        bool handled = false;
        const int result =
            spawn_through_emulator(pid, program, actions, attributes, argv, envp, &handled);
        if (handled)
            return result;
    }
    if (std::strchr(file, '/') != nullptr)
        return real_posix_spawnp(pid, MappedPath(file), actions, attributes, argv, envp);
    return real_posix_spawnp(pid, file, actions, attributes, argv, envp);
}

// ---- pipe-bus sockets under /run/fjp ----

EXPORT int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
    REAL(bind);
    sockaddr_un mapped;
    socklen_t mapped_length = 0;
    bool too_long = false;
    if (map_socket_address(address, length, &mapped, &mapped_length, &too_long)) {
        if (too_long) {
            errno = ENAMETOOLONG;
            return -1;
        }
        return real_bind(fd, reinterpret_cast<sockaddr*>(&mapped), mapped_length);
    }
    return real_bind(fd, address, length);
}

EXPORT int connect(int fd, const sockaddr* address, socklen_t length) {
    REAL(connect);
    sockaddr_un mapped;
    socklen_t mapped_length = 0;
    bool too_long = false;
    if (map_socket_address(address, length, &mapped, &mapped_length, &too_long)) {
        if (too_long) {
            errno = ENAMETOOLONG;
            return -1;
        }
        return real_connect(fd, reinterpret_cast<sockaddr*>(&mapped), mapped_length);
    }
    return real_connect(fd, address, length);
}
