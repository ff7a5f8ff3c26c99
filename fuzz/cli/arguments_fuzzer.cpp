// Arbitrary argument vectors through parse_arguments: the input split on NUL bytes is the
// argument list after the program name. A stand-in i2cdetect first on PATH (the detector pair
// on any bus whose text starts with 1) keeps the presence test fast and off real buses.
#include <fcntl.h>
#include <sanitizer/common_interface_defs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "i2c-monitor.h"
#include "orca-vtx-i2c-monitor.h"
#include "option_globals.h"

namespace {

int g_null_fd = -1;
int g_saved_stdout = -1;
int g_saved_stderr = -1;
std::string g_stand_in_dir;

const OptionGlobals kStart;

void remove_stand_in() {
    unlink((g_stand_in_dir + "/i2cdetect").c_str());
    rmdir(g_stand_in_dir.c_str());
}

void install_stand_in() {
    char dir[] = "/tmp/orca-cli-fuzz-XXXXXX";
    if (mkdtemp(dir) == nullptr)
        abort();
    g_stand_in_dir = dir;
    const std::string script = g_stand_in_dir + "/i2cdetect";
    FILE* file = fopen(script.c_str(), "w");
    if (file == nullptr)
        abort();
    fputs("#!/bin/sh\ncase \"$3\" in 1*) printf '10: -- 1d --\\n40: 48 -- --\\n' ;; esac\n", file);
    fclose(file);
    chmod(script.c_str(), 0755);
    const char* path = getenv("PATH");
    setenv("PATH", (g_stand_in_dir + ":" + (path ? path : "/usr/bin:/bin")).c_str(), 1);
    atexit(remove_stand_in);
}

void check(bool holds) {
    if (!holds)
        abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    install_stand_in();
    g_null_fd = open("/dev/null", O_WRONLY);
    g_saved_stdout = dup(1);
    g_saved_stderr = dup(2);
    // Sanitizer reports must still be seen while the tool's own output is silenced.
    __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<intptr_t>(g_saved_stderr)));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Each argument gets an allocation of its exact size so that a read past its end is seen.
    std::vector<std::unique_ptr<char[]>> storage;
    auto add = [&storage](const uint8_t* text, size_t length) {
        storage.emplace_back(new char[length + 1]);
        memcpy(storage.back().get(), text, length);
        storage.back()[length] = '\0';
    };
    add(reinterpret_cast<const uint8_t*>("orca-vtx-i2c-monitor"), 20);
    size_t start = 0;
    for (size_t i = 0; size > 0 && i <= size; ++i) {
        if (i == size || data[i] == 0) {
            add(data + start, i - start);
            start = i + 1;
        }
    }
    std::vector<char*> argv;
    for (auto& argument : storage)
        argv.push_back(argument.get());
    argv.push_back(nullptr);

    kStart.restore();
    fflush(nullptr);
    dup2(g_null_fd, 1);
    dup2(g_null_fd, 2);
    const RunMode mode = parse_arguments(static_cast<int>(storage.size()), argv.data());
    fflush(nullptr);
    dup2(g_saved_stdout, 1);
    dup2(g_saved_stderr, 2);

    check(mode >= RUN_MODE_ERROR && mode <= RUN_MODE_FAST_CALIBRATE);
    check(memchr(I2C_DEVICE, '\0', sizeof I2C_DEVICE) != nullptr);
    if (mode >= RUN_MODE_MONITOR)
        check(strncmp(I2C_DEVICE, "/dev/i2c-", 9) == 0 && strlen(I2C_DEVICE) <= 9 + 11);
    if (mode == RUN_MODE_CALIBRATE || mode == RUN_MODE_FAST_CALIBRATE) {
        check(g_calib_params.num_frequencies >= 1 && g_calib_params.num_frequencies <= 10);
        check(g_calib_params.num_mcs >= 1 && g_calib_params.num_mcs <= 10);
        check(g_calibrate_f_flag && g_calibrate_m_flag);
    }
    return 0;
}
