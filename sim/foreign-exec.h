// Programs of another machine on the simulated board. Without binfmt_misc the kernel cannot
// start an AArch64 program on an x86-64 host, nor can a program that already runs under
// qemu-user start one (its execve reaches the host kernel). Where ORCA_SIM_QEMU_AARCH64 names
// the emulator, such a program is started through it instead, with its arguments and
// environment (and so the simulation) kept: a binfmt handler in user space, confined to the
// processes of the simulation. Host programs (sh, i2cdetect) keep running natively.
//
// Everything here uses raw system calls, so that the preload can call it from inside its own
// wrappers of open, read and close.
#pragma once

#include <cstddef>
#include <vector>

namespace board_sim {

// The variable that names the emulator of AArch64 programs; unset where the kernel runs them.
inline constexpr const char* kAarch64EmulatorVariable = "ORCA_SIM_QEMU_AARCH64";

// The emulator that must start the program file at `path`, or null when the kernel can start
// it itself: the variable is unset or empty, the file cannot be read, or it is not an AArch64
// ELF file (a script, a host program). Changes nothing.
const char* emulator_for(const char* path);

// Where execvp would find `file`: `file` itself when it holds a slash, else the first
// executable entry of PATH (or of "/bin:/usr/bin" without one). Copies it into `buffer` of
// `size` bytes and returns true; false when there is none or it does not fit.
bool find_program(const char* file, char* buffer, size_t size);

// The argument vector that runs `path` with `argv` under `emulator`: the emulator, "-0" and
// the program's own argv[0] (so that it sees the name it was called by), the program file,
// then argv[1] onwards, and a closing null. The pointers refer to the arguments given.
std::vector<char*> emulated_arguments(const char* emulator, const char* path, char* const argv[]);

}  // namespace board_sim
