// The newest records of the consoles that are watched, in memory once for all viewers. Belongs to
// the server's thread.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "journal/journal.h"
#include "web_reader.h"
#include "web_record.h"

namespace zevweb {

/// Somebody who is told when there is something to look at.
class WebWatcher {
 public:
  virtual ~WebWatcher() = default;

  /// The console is known, or known to be another one; or there is nothing to know.
  virtual void ConsoleChanged() = 0;
  virtual void RecordsCame() = 0;
  virtual void Tick() = 0;
};

/// Somebody who is told of events.
class WebListener {
 public:
  virtual ~WebListener() = default;
  virtual void EventsCame(const std::vector<WebNews::Event>& events) = 0;
};

/// Of one console.
struct WebTail {
  struct Entry {
    WebRecordPointer record;
    uint64_t bytes_before = 0;  ///< of output, in all that came before
  };

  bool is_known = false;           ///< whether the journal has something of it has been found out
  std::string console;             ///< its name in the journal; empty when it has nothing of it
  journal::Position covered_from;  ///< no record from here on is missing
  uint64_t first = 0;              ///< number of the first entry
  uint64_t bytes = 0;              ///< of output, in all that came
  uint64_t joins = 0;              ///< how often the console has become another one
  std::deque<Entry> entries;
  std::set<WebWatcher*> watchers;

  uint64_t end() const { return first + entries.size(); }

  /// The first entry at or behind the position.
  uint64_t Find(const journal::Position& position) const;
};

class WebTails {
 public:
  explicit WebTails(WebReader& reader) : reader_(reader) {}

  /// The console's tail, which lives until the watcher leaves.
  const WebTail& Watch(const std::string& name, WebWatcher* watcher);
  void Unwatch(const std::string& name, WebWatcher* watcher);

  /// Whether the watcher's Tick() is called about each 50 ms.
  void WantTicks(WebWatcher* watcher, bool wanted);

  /// Takes what the reader has told.
  void Take(WebNews news);

  bool is_readable() const { return is_readable_; }
  const std::string& problem() const { return problem_; }

  /// Those who listen to events.
  std::set<WebListener*> listeners;

 private:
  void Join(const std::string& name, const WebNews::Joined* joined);
  void Add(const std::string& name, const WebRecordPointer& record);
  void AddTo(const std::string& name, WebTail& tail, const WebRecordPointer& record);
  void DropOldest();

  WebReader& reader_;
  std::map<std::string, WebTail> tails_;
  std::deque<std::string> order_;  // whose record came when
  size_t held_ = 0;                // bytes
  std::set<WebWatcher*> ticked_;
  bool is_readable_ = false;
  std::string problem_;
};

}  // namespace zevweb
