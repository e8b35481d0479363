// The options before the command line is read.
#include "options.h"

#include <gtest/gtest.h>

using namespace zevd;

namespace {

TEST(OptionsTest, HaveTheirDefaults) {
  EXPECT_EQ(debug_level, 0);
  EXPECT_EQ(security_enabled, 1);
  EXPECT_EQ(cons_buf_size, 0);
  EXPECT_EQ(suppress_cr, 1);
  EXPECT_EQ(foreground, 0);
  EXPECT_EQ(log_archive_time, 604800);
  EXPECT_EQ(USE_CMD_LINE_ARCH_TIME, 0);
  EXPECT_EQ(user_port, 6500);
  EXPECT_EQ(max_pending_logins, 5);
  EXPECT_STREQ(log_dir, QOR_ROOT "/logs");
  EXPECT_STREQ(config_file, QOR_ROOT "/config/zev.conf");
}

}  // namespace
