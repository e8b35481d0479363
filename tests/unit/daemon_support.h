// The daemon's options and global lists, for tests that change them.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

namespace test {

/// Sets every option and shared word back to what it was, and u_err_msg to null.
class OptionsGuard {
 public:
  OptionsGuard();
  ~OptionsGuard();
  OptionsGuard(const OptionsGuard&) = delete;
  OptionsGuard& operator=(const OptionsGuard&) = delete;

 private:
  int debug_level_, security_enabled_, cons_buf_size_, suppress_cr_, foreground_;
  int32_t log_archive_time_;
  int use_cmd_line_arch_time_;
  uint16_t user_port_;
  int max_pending_logins_;
  const char *log_dir_, *config_file_, *progname_;
};

/// Makes the global lists as InitializeLists() does, but without watches. At the end it frees what
/// is on them, users and consoles included, and leaves them empty. It closes no socket.
class GlobalLists {
 public:
  GlobalLists();
  ~GlobalLists();
  GlobalLists(const GlobalLists&) = delete;
  GlobalLists& operator=(const GlobalLists&) = delete;
};

/// Most tests need both.
class DaemonTest : public ::testing::Test {
 protected:
  OptionsGuard options_;
  GlobalLists lists_;
};

}  // namespace test
