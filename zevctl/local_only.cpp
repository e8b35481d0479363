#include "local_only.h"

#include "exit_status.h"
#include "output.h"

namespace zevctl {

namespace {

bool IsThisHost(const std::string& host) {
  return host == "localhost" || host == "::1" || host.starts_with("127.");
}

}  // namespace

void RequireThisHost(const Settings& settings, const std::string& command,
                     const std::string& what) {
  if (IsThisHost(settings.host)) return;
  const std::string host = Printable(settings.host);
  throw Failure(ExitStatus::kUsage, "--host: \"" + command + "\" works with " + what +
                                        " of this machine; run it there with \"ssh " + host +
                                        " zevctl " + command +
                                        "\", or leave out --host and ZEVCTL_HOST");
}

}  // namespace zevctl
