#include "fleet_shipped.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "exit_status.h"
#include "json_line.h"

namespace zevfleet {

namespace {

using zevctl::ExitStatus;
using zevctl::Failure;
using zevctl::Json;

constexpr char kName[] = "shipped";
constexpr char kLockName[] = "ship.lock";
constexpr mode_t kDirectoryMode = 0750;
constexpr mode_t kMode = 0640;

const std::string& Made(const std::string& directory) {
  if (mkdir(directory.c_str(), kDirectoryMode) == 0 || errno == EEXIST) return directory;
  throw Failure(ExitStatus::kFailed, "cannot make the directory " + directory + ": " +
                                         strerror(errno) + "; make it, or run this as root");
}

}  // namespace

ShippedFile::ShippedFile(const std::string& directory) : directory_(Made(directory)) {
  const std::string name = directory + "/" + kLockName;
  lock_ = zevctl::Descriptor(
      openat(directory_.fd(), kLockName, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!lock_) {
    throw Failure(ExitStatus::kFailed,
                  "cannot open " + name + ": " + strerror(errno) + "; see the rights");
  }
  if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
    throw Failure(ExitStatus::kFailed, "another process ships this journal: it has " + name);
  }
}

std::string ShippedFile::path() const {
  return directory_.path() + "/" + kName;
}

std::optional<Shipped> ShippedFile::Read() const try {
  const zevctl::ReadFile read = zevctl::ReadWhole(path());
  const Json data = zevctl::ReadJson(read.text);
  if (!data.is_object()) return {};
  const auto place = ParsePlace(data.at("place").get<std::string>());
  const auto last = ParsePlace(data.at("last_message").get<std::string>());
  if (!place || !last) return {};
  return Shipped{*place, *last, data.at("sequence").get<uint64_t>(),
                 data.at("time").get<int64_t>()};
} catch (const Json::exception&) {
  return {};
}

void ShippedFile::Write(const Shipped& shipped) const {
  Json data;
  data["place"] = PlaceText(shipped.place);
  data["last_message"] = PlaceText(shipped.last_message);
  data["sequence"] = shipped.sequence;
  data["time"] = shipped.time;
  zevctl::StagedFile(directory_, kName, zevctl::JsonText(data) + "\n", kMode).Commit();
}

}  // namespace zevfleet
