#include "wifibroadcast_spdlog.h"

#include <mutex>

#include <spdlog/sinks/stdout_color_sinks.h>

namespace wifibroadcast::log {

namespace {
constexpr const char* kDefaultLoggerName = "wifibroadcast";
std::mutex g_logger_mutex;
}  // namespace

std::shared_ptr<spdlog::logger> create_or_get(const std::string& name) {
    // The registry is thread-safe, but get-then-create is not: two threads asking for the
    // same new name would both try to register it, and the second would throw.
    std::lock_guard<std::mutex> lock(g_logger_mutex);
    if (auto existing = spdlog::get(name)) {
        return existing;
    }
    auto logger = spdlog::stdout_color_mt(name);
    logger->set_level(spdlog::level::debug);
    return logger;
}

std::shared_ptr<spdlog::logger> get_default() {
    return create_or_get(kDefaultLoggerName);
}

}  // namespace wifibroadcast::log
