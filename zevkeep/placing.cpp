#include "placing.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

namespace zevkeep {

namespace {

constexpr char kTemporary[] = ".zevkeep.tmp";
constexpr mode_t kMode = 0640;

[[noreturn]] void Fail() {
  throw std::system_error(errno, std::generic_category());
}

void WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = write(fd, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) Fail();
    bytes.remove_prefix(static_cast<size_t>(count));
  }
}

bool IsFull(int error) {
  return error == ENOSPC || error == EDQUOT;
}

// The text has the length of the one before, so it takes no room and lies within one sector.
void WriteOver(const journal::SegmentStore& store, const std::string& name,
               std::string_view bytes) {
  const journal::StoredFile file = store.Open(name, O_WRONLY);
  if (!file) Fail();
  WriteAll(file.get(), bytes);
  if (ftruncate(file.get(), static_cast<off_t>(bytes.size())) != 0 || fsync(file.get()) != 0) {
    Fail();
  }
}

// Whoever may read the directory may read what is in it, also when the keeper's own group is
// another: it may be root's. Where that is not allowed, the file stays as it is.
void GiveToGroupOf(const journal::SegmentStore& store, int fd) {
  struct stat directory {};
  struct stat file {};
  if (fstat(store.fd(), &directory) != 0 || fstat(fd, &file) != 0) Fail();
  if (file.st_gid == directory.st_gid) return;
  if (fchown(fd, static_cast<uid_t>(-1), directory.st_gid) != 0 && errno != EPERM) Fail();
}

}  // namespace

void Place(const journal::SegmentStore& store, const std::string& name,
           const std::function<void(int fd)>& write) {
  const journal::StoredFile file(
      openat(store.fd(), kTemporary, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode));
  if (!file) Fail();
  try {
    write(file.get());
    GiveToGroupOf(store, file.get());
    if (fchmod(file.get(), kMode) != 0 || fsync(file.get()) != 0 ||
        renameat(store.fd(), kTemporary, store.fd(), name.c_str()) != 0) {
      Fail();
    }
  } catch (...) {
    unlinkat(store.fd(), kTemporary, 0);
    throw;
  }
  Settle(store);
}

void PlaceBytes(const journal::SegmentStore& store, const std::string& name,
                std::string_view bytes) {
  Place(store, name, [&](int fd) { WriteAll(fd, bytes); });
}

void PlaceChain(const journal::SegmentStore& store, const journal::Chain& chain) {
  const std::string text = journal::ChainText(chain);
  try {
    PlaceBytes(store, journal::kChainName, text);
  } catch (const std::system_error& error) {
    if (!IsFull(error.code().value()) || !store.Has(journal::kChainName)) throw;
    WriteOver(store, journal::kChainName, text);
  }
}

void Remove(const journal::SegmentStore& store, const std::string& name) {
  if (unlinkat(store.fd(), name.c_str(), 0) != 0 && errno != ENOENT) Fail();
}

void RemoveFiles(const journal::SegmentStore& store, uint64_t segment) {
  Remove(store, NameOf(segment, journal::Form::kRaw));
  Remove(store, NameOf(segment, journal::Form::kCompressed));
  Settle(store);
  Remove(store, NameOf(segment, journal::Form::kIndex));
  Settle(store);
}

void Settle(const journal::SegmentStore& store) {
  if (fsync(store.fd()) != 0) Fail();
}

void RemoveTemporary(const journal::SegmentStore& store) {
  Remove(store, kTemporary);
}

}  // namespace zevkeep
