// zevkeep: keeps the journal. One pass seals the segments that nobody writes any more, compresses
// sealed ones, and removes the oldest beyond the limits in qor.conf. A timer runs it, as the
// daemon's user. zevkeep.8 describes the options and changes together with them.
#include <getopt.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>
#include <iostream>
#include <string>

#include "placing.h"
#include "retention_limits.h"
#include "segment_store.h"
#include "work.h"

namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr mode_t kMask = 027;

constexpr char kHelp[] =
    "Usage: zevkeep [OPTION]...\n"
    "Seals and compresses the segments of the journal, and removes the oldest ones that are "
    "beyond\n"
    "the limits ZEVD_JOURNAL=MiB and ZEVD_JOURNAL_DAYS=DAYS in qor.conf.\n"
    "\n"
    "  -n, --dry-run          Tell what would be done, and change nothing.\n"
    "  -v, --verbose          Tell what is done.\n"
    "  -d, --directory=DIR    The journal's directory (" QOR_ROOT
    "/journal).\n"
    "  -c, --config=FILE      The file with the limits (" QOR_ROOT
    "/config/qor.conf).\n"
    "  -h, --help             Print this help.\n"
    "  -V, --version          Print the version.\n";

struct Options {
  std::string directory = QOR_ROOT "/journal";
  std::string config = QOR_ROOT "/config/qor.conf";
  bool dry_run = false;
  bool verbose = false;
};

int Misuse() {
  std::cerr << "zevkeep: see \"zevkeep --help\" for what can be given\n";
  return kUsage;
}

int64_t Now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec;
}

void TellSystemLog(int priority, const std::string& text) {
  syslog(LOG_AUTHPRIV | priority, "%s", text.c_str());
}

// What the limits allow: nothing is removed when they cannot be read.
zevkeep::Limits LimitsOf(const Options& options, zevkeep::Teller& tell) try {
  return zevkeep::ReadLimits(options.config);
} catch (const std::exception& error) {
  tell.Problem(std::string(error.what()) + "; no segment is removed");
  return {};
}

void Pass(zevkeep::Work& work, const zevkeep::Limits& limits) {
  if (!work.dry_run) zevkeep::RemoveTemporary(work.store);
  if (!LoadChain(work)) return;
  SealSegments(work);
  CompressSegments(work);
  RemoveSegments(work, limits, Now());
  if (!work.disk_was_full || work.removed == 0) return;
  // There is room now.
  SealSegments(work);
  CompressSegments(work);
}

// Nothing is sealed before the daemon has given the journal its number.
bool IsEmpty(const journal::SegmentStore& store) {
  return !store.Has("id") && store.List().empty();
}

int Keep(const Options& options) {
  zevkeep::Teller tell(options.verbose || options.dry_run, TellSystemLog);
  const journal::SegmentStore store(options.directory, geteuid());
  if (flock(store.fd(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) throw std::system_error(errno, std::generic_category());
    tell.Detail("another zevkeep is at work");
    return kOk;
  }
  if (IsEmpty(store)) return kOk;
  zevkeep::Work work{store, tell};
  work.dry_run = options.dry_run;
  work.station = store.Station();
  Pass(work, LimitsOf(options, tell));
  if (!options.dry_run && work.sealed + work.compressed + work.removed > 0) {
    std::cout << "sealed " << work.sealed << ", compressed " << work.compressed << ", removed "
              << work.removed << (work.removed == 1 ? " segment\n" : " segments\n");
  }
  return tell.problems() == 0 ? kOk : kFailed;
}

}  // namespace

int main(int argc, char** argv) try {
  constexpr option kLong[] = {{"dry-run", no_argument, nullptr, 'n'},
                              {"verbose", no_argument, nullptr, 'v'},
                              {"directory", required_argument, nullptr, 'd'},
                              {"config", required_argument, nullptr, 'c'},
                              {"help", no_argument, nullptr, 'h'},
                              {"version", no_argument, nullptr, 'V'},
                              {nullptr, 0, nullptr, 0}};
  Options options;
  for (int one = 0; (one = getopt_long(argc, argv, "nvd:c:hV", kLong, nullptr)) != -1;) {
    switch (one) {
      case 'n':
        options.dry_run = true;
        break;
      case 'v':
        options.verbose = true;
        break;
      case 'd':
        options.directory = optarg;
        break;
      case 'c':
        options.config = optarg;
        break;
      case 'h':
        std::cout << kHelp;
        return kOk;
      case 'V':
        std::cout << "zevkeep " QOR_VERSION "\n";
        return kOk;
      default:
        return Misuse();
    }
  }
  if (optind < argc) return Misuse();
  umask(kMask);
  openlog("zevkeep", LOG_PID, LOG_AUTHPRIV);
  return Keep(options);
} catch (const journal::NoStore&) {
  return kOk;  // the journal has never been on
} catch (const std::exception& error) {
  std::cerr << std::string("zevkeep: ") + error.what() + "\n";
  return kFailed;
}
