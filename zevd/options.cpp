#include "options.h"

#include "paths.h"

namespace zevd {

int debug_level = 0;
int security_enabled = 1;
int cons_buf_size = 0;
int suppress_cr = 1;
int foreground = 0;
int32_t log_archive_time = 604800;  // seven days
int USE_CMD_LINE_ARCH_TIME = 0;
uint16_t user_port = 6500;
int max_pending_logins = 5;
const char* log_dir = kLogDir;
const char* config_file = kConfigFile;
const char* progname = nullptr;

}  // namespace zevd
