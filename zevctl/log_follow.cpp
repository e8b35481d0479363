#include "log_follow.h"

#include <algorithm>
#include <utility>

#include "exit_status.h"
#include "output.h"

namespace zevctl {

namespace {

// After so many failures in a row the user is told. What the daemon has just made may not be
// readable yet.
constexpr int kFailuresToTell = 10;

constexpr auto kLeaveUnfinished = [](const LogReader&) { return Unfinished::kLeave; };
constexpr auto kTakeUnfinished = [](const LogReader&) { return Unfinished::kTake; };

LogReader* Find(const LogReaders& readers, const FileIdentity& identity) {
  const auto found = std::find_if(readers.begin(), readers.end(), [&](const auto& reader) {
    return reader->identity() == identity;
  });
  return found == readers.end() ? nullptr : found->get();
}

// Most logs have nothing new at most times.
void Read(LogReaders& readers, const UnfinishedRule& unfinished, const RecordHandler& handle) {
  const auto has_none = [](const auto& reader) { return !reader->Refresh(); };
  const auto rest = std::stable_partition(readers.begin(), readers.end(), std::not_fn(has_none));
  if (rest == readers.begin()) return;
  LogReaders quiet(std::make_move_iterator(rest), std::make_move_iterator(readers.end()));
  readers.erase(rest, readers.end());
  ReadInOrder(readers, unfinished, kEndOfTime, handle);
  std::move(quiet.begin(), quiet.end(), std::back_inserter(readers));
}

}  // namespace

bool DirectoryChanges::Look(const struct stat& info) {
  const FileIdentity identity = IdentityOf(info);
  const bool same = identity == identity_ && info.st_mtim.tv_sec == changed_.tv_sec &&
                    info.st_mtim.tv_nsec == changed_.tv_nsec;
  identity_ = identity;
  changed_ = info.st_mtim;
  looks_left_ = same ? std::max(looks_left_ - 1, 0) : kMoreLooks;
  return looks_left_ > 0;
}

Follower::Follower(std::string log_dir, WantedLogs wanted, std::vector<LogDirectory> directories,
                   LogReaders readers, Teller tell)
    : log_dir_(std::move(log_dir)),
      wanted_(std::move(wanted)),
      tell_(std::move(tell)),
      readers_(std::move(readers)) {
  for (LogDirectory& directory : directories) {
    known_.insert(directory.identity());
    watches_.push_back({std::move(directory), {}});
  }
}

void Follower::Tick(const RecordHandler& handle) {
  LogReaders fresh;
  LookForNew(fresh);
  Read(readers_, kLeaveUnfinished, handle);
  Read(fresh, kLeaveUnfinished, handle);
  std::move(fresh.begin(), fresh.end(), std::back_inserter(readers_));
  Forget(handle);
}

void Follower::LookForNew(LogReaders& fresh) try {
  LookForDirectories();
  for (Watch& watch : watches_) LookForFiles(watch, fresh);
  failures_ = 0;
} catch (const Failure& failure) {
  if (++failures_ == kFailuresToTell) tell_(failure.what());
}

void Follower::LookForDirectories() {
  auto current = OpenCurrentDirectory(log_dir_);
  if (current) WatchCurrent(std::move(*current));
  struct stat info {};
  const bool exists = stat(DatedDirectoryPath(log_dir_).c_str(), &info) == 0;
  if (exists && !changes_.Look(info) && failures_ == 0) return;
  std::set<FileIdentity> listed;
  for (LogDirectory& directory : OpenLogDirectories(log_dir_)) {
    listed.insert(directory.identity());
    if (known_.contains(directory.identity()) || IsWatched(directory.identity())) continue;
    watches_.push_back({std::move(directory), {}});
  }
  known_ = std::move(listed);
}

// While there is no current directory, as in the middle of a change, the watch of the others does
// not run out.
void Follower::WatchCurrent(LogDirectory current) {
  for (Watch& watch : watches_) --watch.ticks_left;
  const auto found = std::find_if(watches_.begin(), watches_.end(), [&](const Watch& watch) {
    return watch.directory.identity() == current.identity();
  });
  if (found == watches_.end()) {
    watches_.push_back({std::move(current), {}});
  } else {
    found->ticks_left = kWatchTicks;
  }
}

void Follower::LookForFiles(Watch& watch, LogReaders& fresh) {
  struct stat info {};
  fstat(watch.directory.fd(), &info);
  if (!watch.changes.Look(info) && failures_ == 0) return;
  for (const auto& entry : watch.directory.Logs()) LookAt(entry, watch.directory, fresh);
}

// What has been compressed since is no news.
void Follower::LookAt(const LogDirectory::Entry& entry, const LogDirectory& directory,
                      LogReaders& fresh) {
  LogReader* known = Find(readers_, {directory.identity().device, entry.inode});
  if (known != nullptr) return TakeName(*known, entry.name);
  if (!wanted_.Has(entry.name) || entry.is_compressed) return;
  auto reader = OpenLog(directory, entry);
  if (!reader) return;
  const FileIdentity& file = reader->identity();
  if (Find(readers_, file) == nullptr && Find(fresh, file) == nullptr) {
    fresh.push_back(std::move(reader));
  }
}

// When a console is renamed, the daemon renames its log. The next log has the new name.
void Follower::TakeName(LogReader& reader, const std::string& name) {
  if (reader.name() == name) return;
  if (!wanted_.Has(name)) {
    tell_("the log of " + Printable(reader.name()) + " is now that of " + Printable(name) +
          "; following both names");
    wanted_.Add(name);
  }
  reader.Rename(name);
}

// The daemon goes on writing to a removed file until it opens another.
void Follower::Forget(const RecordHandler& handle) {
  std::erase_if(watches_, [](const Watch& watch) { return watch.ticks_left <= 0; });
  const auto is_followed = [&](const auto& reader) { return IsWatched(reader->directory()); };
  const auto others = std::stable_partition(readers_.begin(), readers_.end(), is_followed);
  const bool has_successor = others != readers_.begin();
  const auto kept = std::stable_partition(others, readers_.end(), [&](const auto& reader) {
    return !has_successor && reader->IsRemoved();
  });
  LogReaders forgotten(std::make_move_iterator(kept), std::make_move_iterator(readers_.end()));
  readers_.erase(kept, readers_.end());
  Read(forgotten, kTakeUnfinished, handle);
}

bool Follower::IsWatched(const FileIdentity& directory) const {
  return std::any_of(watches_.begin(), watches_.end(),
                     [&](const Watch& watch) { return watch.directory.identity() == directory; });
}

}  // namespace zevctl
