// Says which machine it runs as, whether it sees the simulated board, and its arguments: started
// from a host shell in a cross build, it must run under the emulator with the preload of its own
// machine.
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
    utsname name{};
    if (uname(&name) != 0)
        return 1;
    // The host has no i2c-dev nodes; the simulated board has bus 1.
    std::printf("%s %s:", name.machine,
                access("/dev/i2c-1", F_OK) == 0 ? "on the board" : "off the board");
    for (int i = 1; i < argc; ++i)
        std::printf(" [%s]", argv[i]);
    std::printf("\n");
    return 0;
}
