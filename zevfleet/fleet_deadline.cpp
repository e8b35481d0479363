#include "fleet_deadline.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "config_file.h"
#include "descriptor.h"
#include "exit_status.h"

namespace zevfleet {

namespace {

constexpr std::string_view kMagic = "ZEVFLT1\n";
constexpr mode_t kMode = 0644;

zevctl::Failure Unusable(const std::string& path) {
  return {zevctl::ExitStatus::kFailed,
          "cannot use " + path + ": " + strerror(errno) + "; see the rights of its directory"};
}

}  // namespace

// The bytes of the file.
struct DeadlineFile::Content {
  char magic[8];
  std::atomic<int64_t> deadline;
  std::atomic<int64_t> lease;
  std::atomic<int64_t> holds;
};

void DeadlineFile::Unmap::operator()(Content* content) const {
  munmap(content, sizeof *content);
}

bool DeadlineFile::IsOurs(const Content& content) {
  return std::string_view(content.magic, sizeof content.magic) == kMagic;
}

DeadlineFile DeadlineFile::ForWriting(const std::string& path, bool holds) {
  static_assert(std::atomic<int64_t>::is_always_lock_free);
  const zevctl::Descriptor present(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
  struct stat info {};
  if (present && fstat(present.get(), &info) == 0 && info.st_size == sizeof(Content)) {
    void* place =
        mmap(nullptr, sizeof(Content), PROT_READ | PROT_WRITE, MAP_SHARED, present.get(), 0);
    if (place == MAP_FAILED) throw Unusable(path);
    DeadlineFile file(static_cast<Content*>(place));
    if (IsOurs(*file.content_)) return file;
  }
  // It gets its name when it is whole.
  const std::string staged = path + ".new";
  unlink(staged.c_str());
  const zevctl::Descriptor made(
      open(staged.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kMode));
  if (!made || ftruncate(made.get(), sizeof(Content)) != 0) throw Unusable(path);
  // What root makes before a start of the daemon is written by another user afterwards.
  const zevctl::ConfigDirectory directory(path.substr(0, path.rfind('/')));
  const bool readable = fchmod(made.get(), kMode) == 0;
  const bool given =
      fchown(made.get(), directory.owner(), directory.group()) == 0 || geteuid() != 0;
  if (!readable || !given) throw Unusable(path);
  void* place = mmap(nullptr, sizeof(Content), PROT_READ | PROT_WRITE, MAP_SHARED, made.get(), 0);
  if (place == MAP_FAILED) throw Unusable(path);
  DeadlineFile file(static_cast<Content*>(place));
  memcpy(file.content_->magic, kMagic.data(), sizeof file.content_->magic);
  file.SetHolds(holds);
  if (rename(staged.c_str(), path.c_str()) != 0) throw Unusable(path);
  return file;
}

std::optional<DeadlineFile> DeadlineFile::ForReading(const std::string& path) {
  const zevctl::Descriptor opened(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  struct stat info {};
  if (!opened || fstat(opened.get(), &info) != 0 || info.st_size != sizeof(Content)) return {};
  void* place = mmap(nullptr, sizeof(Content), PROT_READ, MAP_SHARED, opened.get(), 0);
  if (place == MAP_FAILED) return {};
  DeadlineFile file(static_cast<Content*>(place));
  if (!IsOurs(*file.content_)) return {};
  return file;
}

LeaseState DeadlineFile::Get() const {
  return {.deadline = content_->deadline.load(),
          .holds = content_->holds.load() != 0,
          .lease = content_->lease.load()};
}

void DeadlineFile::SetDeadline(int64_t deadline) {
  content_->deadline.store(deadline);
}

void DeadlineFile::SetHolds(bool holds) {
  content_->holds.store(holds ? 1 : 0);
}

void DeadlineFile::SetLease(int64_t lease) {
  content_->lease.store(lease);
}

}  // namespace zevfleet
