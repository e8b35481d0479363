// zevd-logs: compresses the logs of closed dated directories and removes those that are older than
// ZEVD_KEEP_DAYS= in qor.conf allows. A timer runs it once a day, as the daemon's user.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <exception>
#include <iostream>
#include <string>

#include "descriptor.h"
#include "exit_status.h"
#include "log_directories.h"
#include "log_keeper.h"
#include "output.h"
#include "settings.h"

namespace {

using zevctl::ExitStatus;
using zevctl::Failure;

constexpr char kUsage[] =
    "Usage: zevd-logs [-l DIR]\n"
    "Compresses the logs in closed directories of the daemon, and removes those that are older\n"
    "than the line ZEVD_KEEP_DAYS=DAYS of qor.conf allows.\n"
    "   -l DIR   The daemon's log directory.\n";

void Tell(const std::string& message) {
  zevctl::Announce("zevd-logs: " + message);
}

// What is in the file; empty when there is none.
std::string Settings(const std::string& path) {
  constexpr off_t kMostBytes = 1 << 20;
  const zevctl::Descriptor file(
      open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file && errno == ENOENT) return {};
  struct stat info {};
  if (!file || fstat(file.get(), &info) != 0) throw zevctl::CannotRead(path, errno);
  if (!S_ISREG(info.st_mode) || info.st_size > kMostBytes) {
    throw Failure(ExitStatus::kFailed, path + " is no file of settings; put one in its place");
  }
  std::string text(static_cast<size_t>(info.st_size), '\0');
  const ssize_t count = pread(file.get(), text.data(), text.size(), 0);
  if (count < 0) throw zevctl::CannotRead(path, errno);
  text.resize(static_cast<size_t>(count));
  return text;
}

// 0 for ever, also when the setting makes no sense: then `is_good` becomes false.
int KeepDays(bool& is_good) try {
  const std::string path = zevctl::kStationRoot + "/config/qor.conf";
  const auto days = zevctl::KeepDaysIn(Settings(path));
  if (days) return *days;
  throw Failure(ExitStatus::kFailed, path +
                                         ": ZEVD_KEEP_DAYS= is not followed by a number of days; "
                                         "write a number up to 36500, where 0 keeps all logs");
} catch (const Failure& failure) {
  Tell(failure.what() + std::string("; no log is removed"));
  is_good = false;
  return 0;
}

std::string Counted(size_t count, const std::string& one, const std::string& many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

ExitStatus Run(const std::string& log_dir) {
  bool is_good = true;
  const int days = KeepDays(is_good);
  const zevctl::Kept kept = zevctl::LogKeeper(log_dir, days, time(nullptr), Tell).Run();
  std::cout << "compressed " << Counted(kept.compressed, "log", "logs") << " from " << kept.before
            << " to " << kept.after << " bytes, removed " << Counted(kept.removed, "log", "logs")
            << " and " << Counted(kept.directories, "directory", "directories") << "\n";
  return is_good && kept.failures == 0 ? ExitStatus::kOk : ExitStatus::kFailed;
}

}  // namespace

int main(int argc, char** argv) try {
  std::string log_dir = zevctl::kStationRoot + "/logs";
  for (int option = getopt(argc, argv, "l:h"); option != -1; option = getopt(argc, argv, "l:h")) {
    if (option == 'l') {
      log_dir = optarg;
    } else {
      (option == 'h' ? std::cout : std::cerr) << kUsage;
      return static_cast<int>(option == 'h' ? ExitStatus::kOk : ExitStatus::kUsage);
    }
  }
  if (optind < argc) {
    std::cerr << kUsage;
    return static_cast<int>(ExitStatus::kUsage);
  }
  return static_cast<int>(Run(log_dir));
} catch (const std::exception& error) {
  Tell(error.what());
  return static_cast<int>(ExitStatus::kFailed);
}
