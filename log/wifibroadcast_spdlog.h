#pragma once

#include <memory>
#include <string>

#include <spdlog/spdlog.h>

namespace wifibroadcast::log {

// The named logger; created on first use as a colour console logger on standard output
// at level debug.
std::shared_ptr<spdlog::logger> create_or_get(const std::string& name);

// The same for the library's default logger name.
std::shared_ptr<spdlog::logger> get_default();

}  // namespace wifibroadcast::log
