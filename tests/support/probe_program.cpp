// A program for the run_process tests: prints its arguments and the variable ORCA_PROBE, and
// exits with the status given in ORCA_PROBE_EXIT.
#include <cstdio>
#include <cstdlib>

int main(int argc, char* argv[]) {
    for (int i = 0; i < argc; ++i)
        printf("argv[%d]=%s\n", i, argv[i]);
    const char* probe = getenv("ORCA_PROBE");
    printf("ORCA_PROBE=%s\n", probe ? probe : "(unset)");
    const char* status = getenv("ORCA_PROBE_EXIT");
    return status ? atoi(status) : 0;
}
