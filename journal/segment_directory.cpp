#include "segment_directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>

#include "journal.h"
#include "journal_words.h"

namespace journal {

namespace {

using Cause = JournalError::Cause;

constexpr size_t kSegmentDigits = 20;

constexpr std::array<std::pair<FileKind, std::string_view>, 3> kSuffixes = {{
    {FileKind::kRaw, ".seg"},
    {FileKind::kCompressed, ".seg.zst"},
    {FileKind::kIndex, ".idx"},
}};

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

JournalError ErrorOfSystem(const std::string& path, int error) {
  const bool is_foreign = error == ELOOP || error == ENOTDIR;
  const Cause cause = error == ENOENT ? Cause::kMissing
                      : is_foreign    ? Cause::kForeign
                                      : Cause::kUnreadable;
  const std::string reason = is_foreign ? "is a link or no directory" : strerror(error);
  return {cause, path + ": " + reason};
}

std::string NameOf(uint64_t segment, FileKind kind) {
  std::array<char, kSegmentDigits + 1> digits{};
  snprintf(digits.data(), digits.size(), "%020llu", static_cast<unsigned long long>(segment));
  std::string name = digits.data();
  for (const auto& [other, suffix] : kSuffixes) {
    if (other == kind) name += suffix;
  }
  return name;
}

// The segment's number, if the name begins with one; 0 otherwise, which no segment has.
uint64_t NumberOf(std::string_view name) {
  if (name.size() <= kSegmentDigits || name[kSegmentDigits] != '.') return 0;
  uint64_t number = 0;
  const auto [stop, error] = std::from_chars(name.data(), name.data() + kSegmentDigits, number);
  return error == std::errc() && stop == name.data() + kSegmentDigits ? number : 0;
}

void AddTo(std::map<uint64_t, SegmentFiles>& segments, std::string_view name) {
  const uint64_t number = NumberOf(name);
  if (number == 0) return;
  const std::string_view end = name.substr(kSegmentDigits);
  for (const auto& [kind, suffix] : kSuffixes) {
    if (end != suffix) continue;
    SegmentFiles& files = segments[number];
    (kind == FileKind::kRaw          ? files.has_raw
     : kind == FileKind::kCompressed ? files.has_compressed
                                     : files.has_index) = true;
  }
}

// With a slash at its end the path of a link would be that of its target.
std::string WithoutSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

File::~File() {
  if (fd_ >= 0) close(fd_);
}

SegmentDirectory::SegmentDirectory(const std::string& path) : path_(WithoutSlashes(path)) {
  directory_ = File(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory_) throw ErrorOfSystem(path, errno);
  struct stat info {};
  if (fstat(directory_.get(), &info) != 0) throw ErrorOfSystem(path, errno);
  if ((info.st_mode & S_IWOTH) != 0) {
    throw JournalError(Cause::kForeign, path + ": anybody may write to this directory");
  }
  owner_ = info.st_uid;
}

std::map<uint64_t, SegmentFiles> SegmentDirectory::List() const {
  // A description of its own: each listing begins at the beginning.
  const int fd = openat(directory_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) throw ErrorOfSystem(path_, errno);
  const std::unique_ptr<DIR, CloseDirectory> directory(fdopendir(fd));
  if (!directory) {
    const int error = errno;
    close(fd);
    throw ErrorOfSystem(path_, error);
  }
  std::map<uint64_t, SegmentFiles> segments;
  errno = 0;
  while (const dirent* entry = readdir(directory.get())) AddTo(segments, entry->d_name);
  if (errno != 0) throw ErrorOfSystem(path_, errno);
  std::erase_if(segments, [](const auto& segment) {
    return !segment.second.has_raw && !segment.second.has_compressed;
  });
  return segments;
}

OpenedFile SegmentDirectory::OpenName(const std::string& name) const {
  OpenedFile opened;
  // A pipe that someone has put there would make the opening wait.
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  File file(openat(directory_.get(), name.c_str(), kFlags));
  struct stat info {};
  if (!file || fstat(file.get(), &info) != 0) {
    if (errno == EMFILE || errno == ENFILE) throw ErrorOfSystem(path_ + "/" + name, errno);
    opened.is_missing = errno == ENOENT;
    opened.reason = errno == ELOOP ? "is a link" : strerror(errno);
    return opened;
  }
  if (!S_ISREG(info.st_mode)) {
    opened.reason = "is no regular file";
  } else if (info.st_uid != owner_ && info.st_uid != 0) {
    opened.reason = "belongs to another user than the journal";
  } else {
    opened.size = static_cast<uint64_t>(info.st_size);
    opened.file = std::move(file);
  }
  return opened;
}

OpenedFile SegmentDirectory::Open(uint64_t segment, FileKind kind) const {
  return OpenName(NameOf(segment, kind));
}

std::optional<uint64_t> SegmentDirectory::Station() const {
  const OpenedFile id = OpenName("id");
  if (!id.file) return {};
  std::array<char, 32> bytes{};
  const ssize_t count = pread(id.file.get(), bytes.data(), bytes.size(), 0);
  if (count <= 0) return {};
  std::string_view text(bytes.data(), static_cast<size_t>(count));
  if (text.ends_with('\n')) text.remove_suffix(1);
  return ParseStation(text);
}

}  // namespace journal
