// The accepted calibrations: DIR/history/<UTC time>/ holds the files as they were accepted.
// A snapshot is written into a hidden temporary folder and renamed into place, so that a
// crash leaves it whole or absent; names sort in time order.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "report.h"

namespace {

constexpr const char* kCalibrationFiles[] = {"calibrated_2_4.csv", "calibrated_5_1.csv",
                                             "calibrated_5_8.csv"};

bool exists(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0;
}

bool read_whole(const std::string& path, std::string& text) {
    FILE* in = fopen(path.c_str(), "rb");
    if (in == nullptr)
        return false;
    char buffer[8192];
    size_t got = 0;
    text.clear();
    while ((got = fread(buffer, 1, sizeof buffer, in)) > 0)
        text.append(buffer, got);
    const bool ok = ferror(in) == 0;
    fclose(in);
    return ok;
}

// Writes and flushes to disk, so that the rename publishes complete files.
bool write_whole(const std::string& path, const std::string& text) {
    FILE* out = fopen(path.c_str(), "wb");
    if (out == nullptr)
        return false;
    bool ok = fwrite(text.data(), 1, text.size(), out) == text.size();
    ok = fflush(out) == 0 && ok;
    ok = fsync(fileno(out)) == 0 && ok;
    return fclose(out) == 0 && ok;
}

void remove_folder(const std::string& folder) {
    for (const char* name : kCalibrationFiles)
        unlink((folder + "/" + name).c_str());
    rmdir(folder.c_str());
}

std::string system_error(const std::string& what) {
    return what + ": " + strerror(errno);
}

}  // namespace

int write_text_file(const std::string& path, const std::string& text, std::string& error) {
    const std::string temporary = path + ".tmp";
    if (!write_whole(temporary, text)) {
        error = system_error("cannot write " + path);
        unlink(temporary.c_str());
        return -1;
    }
    if (rename(temporary.c_str(), path.c_str()) != 0) {
        error = system_error("cannot write " + path);
        unlink(temporary.c_str());
        return -1;
    }
    return 0;
}

int accept_calibration(const std::string& dir, std::string& snapshot, std::string& error) {
    const std::string history = dir + "/history";
    if (mkdir(history.c_str(), 0755) != 0 && errno != EEXIST) {
        error = system_error("cannot create " + history);
        return -1;
    }
    const time_t now = time(nullptr);
    struct tm utc {};
    char stamp[32];
    if (gmtime_r(&now, &utc) == nullptr ||
        strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc) == 0) {
        error = "cannot read the clock";
        return -1;
    }
    // Two acceptances within one second get -01, -02, ...: still in time order.
    std::string name = stamp;
    const std::string folder = history + "/";
    for (int n = 1; exists(folder + name) && n < 100; ++n) {
        char suffix[16];
        snprintf(suffix, sizeof suffix, "-%02d", n);
        name = std::string(stamp) + suffix;
    }
    const std::string target = history + "/" + name;
    const std::string temporary = history + "/.incoming-" + name + "-" + std::to_string(getpid());
    if (exists(target)) {
        error = "too many acceptances within one second in " + history;
        return -1;
    }
    if (mkdir(temporary.c_str(), 0755) != 0) {
        error = system_error("cannot create " + temporary);
        return -1;
    }
    int copied = 0;
    for (const char* file : kCalibrationFiles) {
        const std::string source = dir + "/" + file;
        if (!exists(source))
            continue;
        std::string text;
        if (!read_whole(source, text) || !write_whole(temporary + "/" + file, text)) {
            error = system_error("cannot copy " + source);
            remove_folder(temporary);
            return -1;
        }
        ++copied;
    }
    if (copied == 0) {
        error = "no calibration file in " + dir;
        remove_folder(temporary);
        return -1;
    }
    if (rename(temporary.c_str(), target.c_str()) != 0) {
        error = system_error("cannot store " + target);
        remove_folder(temporary);
        return -1;
    }
    snapshot = target;
    return 0;
}

int latest_snapshot(const std::string& dir, std::string& snapshot, std::string& error) {
    const std::string history = dir + "/history";
    DIR* folder = opendir(history.c_str());
    if (folder == nullptr) {
        error = "no accepted calibration in " + history;
        return -1;
    }
    std::string newest;
    const std::string prefix = history + "/";
    while (const dirent* entry = readdir(folder)) {
        const std::string name = entry->d_name;
        // Hidden names are snapshots still being written, and . and ..
        if (name.empty() || name[0] == '.')
            continue;
        struct stat info {};
        if (stat((prefix + name).c_str(), &info) == 0 && S_ISDIR(info.st_mode) && name > newest)
            newest = name;
    }
    closedir(folder);
    if (newest.empty()) {
        error = "no accepted calibration in " + history;
        return -1;
    }
    snapshot = history + "/" + newest;
    return 0;
}
