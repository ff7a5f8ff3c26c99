#include "foreign-exec.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace board_sim {

namespace {

// e_machine of an ELF file, or EM_NONE when it is none or cannot be read. The field sits at the
// same offset in 32- and 64-bit headers.
int elf_machine(const char* path) {
    const long fd = syscall(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return EM_NONE;
    Elf64_Ehdr header{};
    const long got = syscall(SYS_read, fd, &header, sizeof header);
    syscall(SYS_close, fd);
    if (got < static_cast<long>(offsetof(Elf64_Ehdr, e_machine) + sizeof header.e_machine) ||
        std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0)
        return EM_NONE;
    return header.e_machine;
}

char g_program_name[] = "-0";

}  // namespace

const char* emulator_for(const char* path) {
    const char* emulator = std::getenv(kAarch64EmulatorVariable);
    if (emulator == nullptr || emulator[0] == '\0' || path == nullptr)
        return nullptr;
    return elf_machine(path) == EM_AARCH64 ? emulator : nullptr;
}

bool find_program(const char* file, char* buffer, size_t size) {
    if (file == nullptr || file[0] == '\0')
        return false;
    if (std::strchr(file, '/') != nullptr) {
        if (std::strlen(file) >= size)
            return false;
        std::strcpy(buffer, file);
        return true;
    }
    const char* path = std::getenv("PATH");
    if (path == nullptr)
        path = "/bin:/usr/bin";
    const size_t file_length = std::strlen(file);
    while (true) {
        const char* end = std::strchr(path, ':');
        if (end == nullptr)
            end = path + std::strlen(path);
        const size_t dir_length = static_cast<size_t>(end - path);
        // An empty entry is the current directory, as for execvp.
        const char* dir = dir_length == 0 ? "." : path;
        const size_t length = dir_length == 0 ? 1 : dir_length;
        if (length + 1 + file_length < size) {
            std::memcpy(buffer, dir, length);
            buffer[length] = '/';
            std::memcpy(buffer + length + 1, file, file_length + 1);
            if (syscall(SYS_faccessat, AT_FDCWD, buffer, X_OK, 0) == 0)
                return true;
        }
        if (*end == '\0')
            return false;
        path = end + 1;
    }
}

std::vector<char*> emulated_arguments(const char* emulator, const char* path, char* const argv[]) {
    std::vector<char*> arguments{const_cast<char*>(emulator), g_program_name};
    arguments.push_back(argv != nullptr && argv[0] != nullptr ? argv[0] : const_cast<char*>(path));
    arguments.push_back(const_cast<char*>(path));
    if (argv != nullptr && argv[0] != nullptr) {
        for (char* const* argument = argv + 1; *argument != nullptr; ++argument)
            arguments.push_back(*argument);
    }
    arguments.push_back(nullptr);
    return arguments;
}

}  // namespace board_sim
