// Fuzz targets print nothing but their findings. The code under test reports every bad input
// on stdout or stderr, and a run feeds it thousands a second: those messages would bury the
// findings and flood the test log.
//
// libFuzzer's -close_fd_mask=3 is the way that keeps the findings: it first moves its own
// output and the sanitizers' reports to a copy of stderr, then sends descriptors 1 and 2 to
// /dev/null. orca_fuzz_quiet() adds that flag to the command line, from
// LLVMFuzzerInitialize (libFuzzer reads its flags after calling it), unless the caller gave
// a -close_fd_mask of their own (-close_fd_mask=0 to see the messages while debugging).
#pragma once

#include <cstring>
#include <vector>

inline void orca_fuzz_quiet(int* argc, char*** argv) {
    for (int i = 1; i < *argc; ++i)
        if (std::strncmp((*argv)[i], "-close_fd_mask=", 15) == 0)
            return;
    static std::vector<char*> arguments;
    static char flag[] = "-close_fd_mask=3";
    arguments.assign(*argv, *argv + *argc);
    // The flag goes before the corpus folders and files; libFuzzer takes flags anywhere.
    arguments.insert(arguments.begin() + 1, flag);
    arguments.push_back(nullptr);
    *argc += 1;
    *argv = arguments.data();
}
