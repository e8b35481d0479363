#include "log_merge.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <optional>
#include <queue>
#include <tuple>
#include <utility>

namespace zevctl {

namespace {

/// A reader and when the first record from its position on was written.
struct Started {
  time_t time;
  std::chrono::nanoseconds changed;  // orders those that start within the same second
  LogReader* reader;

  bool operator<(const Started& other) const {
    return std::tie(time, changed) < std::tie(other.time, other.changed);
  }
};

std::vector<Started> InOrderOfStart(const LogReaders& readers) {
  std::vector<Started> started;
  for (const auto& reader : readers) {
    const time_t time = reader->TimeHere().value_or(kStartOfTime);
    started.push_back({time, reader->Changed(), reader.get()});
  }
  std::stable_sort(started.begin(), started.end());
  return started;
}

/// The readers whose next records are compared. A file joins when the records of the others reach
/// its first one, and leaves at its end, so that memory does not grow with the number of files.
class Merge {
 public:
  Merge(const LogReaders& readers, const UnfinishedRule& unfinished)
      : unfinished_(unfinished), waiting_(InOrderOfStart(readers)) {}

  /// The reader whose next record is the earliest, of equal ones that which joined first; null at
  /// the end of all files. The record that it returned before must have been skipped.
  LogReader* Next() {
    if (last_) Await(*std::exchange(last_, std::nullopt));
    while (joined_ < waiting_.size() &&
           (active_.empty() || waiting_[joined_].time <= active_.top().first)) {
      Await(joined_++);
    }
    if (active_.empty()) return nullptr;
    last_ = active_.top().second;
    active_.pop();
    return waiting_[*last_].reader;
  }

 private:
  using Turn = std::pair<time_t, size_t>;  // of a record, and which reader

  void Await(size_t which) {
    LogReader* reader = waiting_[which].reader;
    if (reader->Peek(unfinished_(*reader)) == nullptr) return reader->DropBuffer();
    active_.emplace(reader->key(), which);
  }

  const UnfinishedRule& unfinished_;
  std::vector<Started> waiting_;
  size_t joined_ = 0;
  std::priority_queue<Turn, std::vector<Turn>, std::greater<>> active_;
  std::optional<size_t> last_;
};

}  // namespace

LogReaders OpenLogs(const std::vector<LogDirectory>& directories, const WantedLogs& wanted) {
  LogReaders readers;
  for (const LogDirectory& directory : directories) {
    for (const auto& entry : directory.Logs()) {
      if (!wanted.Has(entry.name)) continue;
      auto reader = OpenLog(directory, entry);
      if (reader) readers.push_back(std::move(reader));
    }
  }
  return readers;
}

// Goes from the newest file back. A file that ends before the oldest record found so far holds none
// of the last ones, once there are enough.
void GoToLastRecords(const LogReaders& readers, size_t count) {
  std::vector<Started> started = InOrderOfStart(readers);
  size_t found = 0;
  time_t oldest = kEndOfTime;
  for (auto it = started.rbegin(); it != started.rend(); ++it) {
    LogReader& reader = *it->reader;
    const bool is_older = reader.LastTime().value_or(kEndOfTime) < oldest;
    const size_t wanted = found >= count && is_older ? 1 : count;
    found += reader.GoToLastLines(wanted);
    oldest = std::min(oldest, reader.TimeHere().value_or(kStartOfTime));
  }
}

void ReadInOrder(LogReaders& readers, const UnfinishedRule& unfinished, time_t end,
                 const RecordHandler& handle) {
  Merge merge(readers, unfinished);
  for (LogReader* reader = merge.Next(); reader != nullptr && reader->key() <= end;
       reader = merge.Next()) {
    handle(*reader, *reader->Peek(unfinished(*reader)));
    reader->Skip();
  }
}

}  // namespace zevctl
