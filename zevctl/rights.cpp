#include "rights.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "descriptor.h"
#include "program_run.h"
#include "settings.h"

namespace zevctl {

namespace {

constexpr char kPamService[] = "/etc/pam.d/qor";
constexpr mode_t kOthers = S_IRWXO;

std::string ConfigPath() {
  return kStationRoot + "/config";
}

std::optional<gid_t> GroupId(const std::string& name) {
  const group* entry = getgrnam(name.c_str());
  return entry == nullptr ? std::nullopt : std::optional(entry->gr_gid);
}

std::string NameOfUser(uid_t user) {
  const passwd* entry = getpwuid(user);
  return entry == nullptr ? "user " + std::to_string(user) : entry->pw_name;
}

std::string NameOfGroup(gid_t id) {
  const group* entry = getgrgid(id);
  return entry == nullptr ? std::to_string(id) : entry->gr_name;
}

// By the system's databases, as they will count at the next login.
bool IsMember(const std::string& user, const std::string& name) {
  const auto wanted = GroupId(name);
  const passwd* entry = getpwnam(user.c_str());
  if (!wanted || entry == nullptr) return false;
  int count = 256;
  std::vector<gid_t> groups(static_cast<size_t>(count));
  if (getgrouplist(user.c_str(), entry->pw_gid, groups.data(), &count) < 0) {
    groups.resize(static_cast<size_t>(count));
    getgrouplist(user.c_str(), entry->pw_gid, groups.data(), &count);
  }
  return std::find(groups.begin(), groups.begin() + count, *wanted) != groups.begin() + count;
}

bool BelongsToDaemon(uid_t owner) {
  const passwd* daemon = getpwnam(kStationGroup);
  return owner == 0 || (daemon != nullptr && daemon->pw_uid == owner);
}

// Empty when the program succeeded; otherwise what it said.
std::string Run(const std::vector<std::string>& command) {
  const ProgramResult result = RunProgram(command);
  if (result.status == 0) return "";
  const std::string said = result.output.substr(0, result.output.find('\n'));
  return command[0] + " failed" + (said.empty() ? "" : ": " + said);
}

std::string Octal(mode_t mode) {
  std::array<char, 8> text{};
  snprintf(text.data(), text.size(), "%04o", mode & 07777U);
  return text.data();
}

std::string ErrorText() {
  return strerror(errno);
}

}  // namespace

bool Rights::Has(Step::Kind kind) const {
  return std::any_of(steps_.begin(), steps_.end(),
                     [&](const Step& step) { return step.kind == kind; });
}

void Rights::Mend(const std::string& what, const std::string& done,
                  const std::function<std::string()>& mend) {
  if (only_look_) return Note(Step::Kind::kWanted, what + " would be " + done);
  const std::string failure = mend();
  if (failure.empty()) return Note(Step::Kind::kMended, what + " was " + done);
  Note(Step::Kind::kProblem, what + " could not be " + done + ": " + failure);
}

void Rights::Groups() {
  for (const char* const name : {kLoginGroup, kStationGroup}) Group(name);
}

void Rights::Group(const std::string& name) {
  if (GroupId(name)) return Note(Step::Kind::kRight, "the group " + name + " is there");
  Mend("the group " + name, "made", [&] { return Run({"groupadd", "--system", name}); });
}

void Rights::Member(const std::string& user) {
  for (const char* const name : {kLoginGroup, kStationGroup}) Join(user, name);
}

void Rights::Join(const std::string& user, const std::string& group) {
  if (IsMember(user, group)) return Note(Step::Kind::kRight, user + " is in the group " + group);
  Mend(user, "added to the group " + group, [&] {
    std::string failure = Run({"gpasswd", "--add", user, group});
    any_member_added_ = any_member_added_ || failure.empty();
    return failure;
  });
}

void Rights::Files() {
  Directory(kStationRoot, false);
  Directory(ConfigPath(), true);
  Cookie();
  PamService();
}

void Rights::Directory(const std::string& path, bool for_group_alone) {
  const Descriptor directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (directory) return Adjust(directory.get(), path, for_group_alone);
  Note(Step::Kind::kProblem,
       path + " cannot be opened: " + ErrorText() + "; is zevd installed, and are you root?");
}

// The directory may be writable for others than root: what is there in the cookie's place is looked
// at before it is changed.
void Rights::Cookie() {
  const std::string path = ConfigPath() + "/.cookie";
  const Descriptor cookie(
      open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!cookie && errno == ENOENT) {
    return Note(Step::Kind::kRight, path + " is not there yet: the daemon makes it when it starts");
  }
  struct stat file {};
  const bool usable =
      cookie && fstat(cookie.get(), &file) == 0 && S_ISREG(file.st_mode) && file.st_nlink == 1;
  if (usable) return Adjust(cookie.get(), path, true);
  Note(Step::Kind::kProblem,
       path + " is not a usable file; look at it, remove it, and restart zevd");
}

void Rights::Adjust(int fd, const std::string& path, bool for_group_alone) {
  struct stat file {};
  fstat(fd, &file);
  const auto group = GroupId(kStationGroup);
  const bool directory = S_ISDIR(file.st_mode);
  const mode_t access = directory ? S_IRGRP | S_IXGRP : S_IRGRP;
  const mode_t refused = for_group_alone ? kOthers : mode_t{S_IWOTH};
  const mode_t wanted = (file.st_mode & 07777U & ~refused) | access;
  const bool other_group = file.st_gid != 0 && group != file.st_gid;
  if (!BelongsToDaemon(file.st_uid)) {
    Note(Step::Kind::kProblem, path + " belongs to " + NameOfUser(file.st_uid) +
                                   ", neither to root nor to the daemon: chown zevd " + path);
  }
  if (other_group) {
    Note(Step::Kind::kProblem, path + " belongs to the group " + NameOfGroup(file.st_gid) +
                                   "; unless that is meant: chgrp " + kStationGroup + " " + path);
  } else if (group != file.st_gid) {
    Mend(path, std::string("given to the group ") + kStationGroup, [&] {
      const auto now = GroupId(kStationGroup);
      return now && fchown(fd, static_cast<uid_t>(-1), *now) == 0 ? "" : ErrorText();
    });
  }
  if (wanted != (file.st_mode & 07777U)) {
    Mend(path, "changed from mode " + Octal(file.st_mode) + " to " + Octal(wanted),
         [&] { return fchmod(fd, wanted) == 0 ? "" : ErrorText(); });
  }
  const bool as_it_should_be =
      group == file.st_gid && wanted == (file.st_mode & 07777U) && BelongsToDaemon(file.st_uid);
  if (as_it_should_be) Note(Step::Kind::kRight, path + " has the right owner, group and mode");
}

void Rights::PamService() {
  struct stat file {};
  const std::string path = kPamService;
  if (stat(path.c_str(), &file) != 0) {
    return Note(Step::Kind::kProblem, path +
                                          " is missing, without which nobody can log in by "
                                          "password; install it (packaging/pam.d/qor)");
  }
  if (file.st_uid == 0 && (file.st_mode & (S_IWGRP | S_IWOTH)) == 0) {
    return Note(Step::Kind::kRight, path + " is there");
  }
  Note(Step::Kind::kProblem,
       path + " can be changed by others than root: chown root " + path + " && chmod 0644 " + path);
}

}  // namespace zevctl
