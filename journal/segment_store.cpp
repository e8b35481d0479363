#include "segment_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <system_error>

#include "seekable.h"

namespace journal {

namespace {

constexpr size_t kDigits = 20;
constexpr size_t kStationDigits = 16;
constexpr size_t kMostIndex = 256 << 20;  // more than an index of the largest segment
constexpr size_t kHashed = 1 << 20;       // bytes at a time

struct Suffix {
  Form form;
  const char* text;
  bool StoredSegment::*has;
};
constexpr Suffix kSuffixes[] = {
    {Form::kRaw, ".seg", &StoredSegment::has_raw},
    {Form::kCompressed, ".seg.zst", &StoredSegment::has_compressed},
    {Form::kIndex, ".idx", &StoredSegment::has_index},
};

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

// The number with which a segment's file begins; 0, which no segment has, for other files.
uint64_t NumberOf(std::string_view name) {
  uint64_t number = 0;
  if (name.size() <= kDigits) return 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + kDigits, number);
  return error == std::errc() && end == name.data() + kDigits ? number : 0;
}

void Note(std::map<uint64_t, StoredSegment>& segments, std::string_view name) {
  const uint64_t number = NumberOf(name);
  if (number == 0) return;
  for (const Suffix& suffix : kSuffixes) {
    if (name.substr(kDigits) == suffix.text) segments[number].*suffix.has = true;
  }
}

[[noreturn]] void FailToOpen(const std::string& path, int error) {
  if (error == ENOENT) {
    throw NoStore(path + ": there is no journal; set ZEVD_JOURNAL= in qor.conf to have one");
  }
  if (error == ELOOP || error == ENOTDIR) {
    throw StoreError(path + " is a link or no directory; put the journal's directory in its place");
  }
  throw StoreError(path + " cannot be opened: " + strerror(error) +
                   "; run this as root or as the daemon's user");
}

void CheckOwner(const std::string& path, const struct stat& info, uid_t owner) {
  if (info.st_uid != owner) {
    throw StoreError(path + " belongs to another user; run this as its owner (runuser -u zevd)");
  }
  if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    throw StoreError(path +
                     " can be written by others; look at what is in it and set its mode to "
                     "0750");
  }
}

const char* Words(IndexFault fault) {
  switch (fault) {
    case IndexFault::kNone:
      break;
    case IndexFault::kShort:
      return "is cut off";
    case IndexFault::kForeign:
      return "is no index";
    case IndexFault::kVersion:
      return "has the format of another version";
    case IndexFault::kChecksum:
      return "is damaged: its checksum is wrong";
    case IndexFault::kContents:
      return "is damaged: what it says cannot be";
  }
  return "";
}

}  // namespace

StoredFile::~StoredFile() {
  if (fd_ >= 0) close(fd_);
}

std::string NameOf(uint64_t segment, Form form) {
  const std::string digits = std::to_string(segment);
  std::string name = std::string(kDigits - digits.size(), '0') + digits;
  for (const Suffix& suffix : kSuffixes) {
    if (suffix.form == form) name += suffix.text;
  }
  return name;
}

SegmentStore::SegmentStore(std::string path, std::optional<uid_t> owner)
    : path_(std::move(path)),
      directory_(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)) {
  struct stat info {};
  if (!directory_ || fstat(fd(), &info) != 0) FailToOpen(path_, errno);
  if (owner) CheckOwner(path_, info, *owner);
}

std::map<uint64_t, StoredSegment> SegmentStore::List() const {
  // A description of its own: each listing begins at the beginning.
  const int own = openat(fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, CloseDirectory> stream(own < 0 ? nullptr : fdopendir(own));
  if (!stream) FailToOpen(path_, errno);
  std::map<uint64_t, StoredSegment> segments;
  errno = 0;
  while (const dirent* entry = readdir(stream.get())) Note(segments, entry->d_name);
  if (errno != 0) FailToOpen(path_, errno);
  return segments;
}

StoredFile SegmentStore::Open(const std::string& name, int flags) const {
  // A pipe that someone has put there would make the opening wait.
  StoredFile file(
      openat(fd(), name.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat info {};
  if (!file || fstat(file.get(), &info) != 0) return {};
  if (S_ISREG(info.st_mode)) return file;
  errno = ENXIO;
  return {};
}

std::optional<std::string> SegmentStore::Read(const std::string& name) const {
  const StoredFile file = Open(name, O_RDONLY);
  if (!file) return {};
  RawSegment source(file.get());
  std::string bytes;
  try {
    bytes.resize(static_cast<size_t>(std::min<uint64_t>(source.Size(), kMostIndex)));
    bytes.resize(source.ReadAt(0, bytes));
  } catch (const std::system_error& error) {
    errno = error.code().value();
    return {};
  }
  return bytes;
}

bool SegmentStore::Has(const std::string& name) const {
  struct stat info {};
  return fstatat(fd(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
}

uint64_t SegmentStore::Station() const {
  const auto text = Read("id");
  const std::string advice =
      "; put back the number of this journal, which each seal in the "
      "system's log has";
  if (!text) throw StoreError(path_ + "/id cannot be read: " + strerror(errno) + advice);
  uint64_t station = 0;
  const char* begin = text->data();
  const auto [end, error] =
      std::from_chars(begin, begin + std::min(text->size(), kStationDigits), station, 16);
  const bool has_capital = text->find_first_of("ABCDEF") != std::string::npos;
  if (error != std::errc() || end != begin + kStationDigits ||
      text->substr(kStationDigits) != "\n" || has_capital) {
    throw StoreError(path_ + "/id is damaged" + advice);
  }
  return station;
}

SealedIndex SegmentStore::ReadIndex(uint64_t station, uint64_t segment) const {
  SealedIndex sealed;
  auto bytes = Read(NameOf(segment, Form::kIndex));
  if (!bytes) {
    sealed.is_missing = errno == ENOENT;
    sealed.fault = std::string("cannot be read: ") + strerror(errno);
    return sealed;
  }
  size_t length = 0;
  const IndexFault fault = DecodeIndex(*bytes, &sealed.index, &length);
  sealed.is_newer = fault == IndexFault::kVersion;
  sealed.fault = Words(fault);
  if (fault != IndexFault::kNone) return sealed;
  const auto seal = DecodeSeal(std::string_view(*bytes).substr(length));
  bytes->resize(length);
  sealed.bytes = std::move(*bytes);
  if (!seal) {
    sealed.fault = "has no whole seal";
    return sealed;
  }
  sealed.seal = *seal;
  if (!IsSealOf(*seal, station, segment, sealed.bytes)) {
    sealed.fault = "has a wrong seal: it was changed, or belongs to another segment";
  } else if (sealed.index.header.station != station || sealed.index.header.segment != segment) {
    sealed.fault = "is the index of another segment";
  }
  return sealed;
}

OpenedSegment SegmentStore::OpenSegment(uint64_t segment, Form form) const {
  OpenedSegment opened;
  opened.file = Open(NameOf(segment, form), O_RDONLY);
  if (!opened.file) {
    opened.fault = std::string("cannot be opened: ") + strerror(errno);
    return opened;
  }
  try {
    if (form == Form::kRaw) {
      opened.source = std::make_unique<RawSegment>(opened.file.get());
    } else {
      opened.source = std::make_unique<SeekableSegment>(opened.file.get());
    }
  } catch (const SeekableError& error) {
    opened.fault = std::string("is damaged: ") + error.what();
  } catch (const std::system_error& error) {
    opened.fault = std::string("cannot be read: ") + error.what();
  }
  return opened;
}

Hash HashOf(SegmentSource& source) {
  Sha256 sha;
  std::string bytes(kHashed, '\0');
  uint64_t offset = 0;
  for (size_t count = source.ReadAt(0, bytes); count > 0; count = source.ReadAt(offset, bytes)) {
    sha.Add({bytes.data(), count});
    offset += count;
  }
  return sha.Take();
}

}  // namespace journal
