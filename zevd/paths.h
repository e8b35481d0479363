// The fixed files and directories of the station. QOR_ROOT is set by the build; nothing else in
// the daemon knows the prefix.
#pragma once

#include <cstddef>

namespace zevd {

inline constexpr char kQorRoot[] = QOR_ROOT;
inline constexpr char kConfigDir[] = QOR_ROOT "/config";
inline constexpr char kConfigFile[] = QOR_ROOT "/config/zev.conf";
inline constexpr char kModelsFile[] = QOR_ROOT "/config/models";
inline constexpr char kCookieFile[] = QOR_ROOT "/config/.cookie";
inline constexpr char kPasswordHelper[] = QOR_ROOT "/bin/qor_pam_auth";
inline constexpr char kLockFile[] = QOR_ROOT "/config/zev.lock";
inline constexpr char kSuiteConfigFile[] = QOR_ROOT "/config/qor.conf";
inline constexpr char kEventsDir[] = QOR_ROOT "/events";
inline constexpr char kLogDir[] = QOR_ROOT "/logs";
inline constexpr char kJournalDir[] = QOR_ROOT "/journal";

/// Size of the buffers in which paths are built, terminator included; longer paths are cut.
inline constexpr size_t kPathSize = 4097;
inline constexpr size_t kEventPathSize = 4096;

}  // namespace zevd
