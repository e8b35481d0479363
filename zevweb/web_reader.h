// One thread that reads the journal for all who watch: what is new, once for everybody, and what a
// viewer has missed.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "journal/journal.h"
#include "telnet_strip.h"
#include "web_record.h"

namespace zevweb {

/// What one look at the journal has brought.
struct WebNews {
  /// A name that is watched means this console now; its records follow from this place on.
  struct Joined {
    std::string name;     ///< as it was asked for
    std::string console;  ///< as the journal has it
    journal::Position position;
  };
  /// A name is empty in what concerns everybody.
  struct Entry {
    std::string name;
    WebRecordPointer record;
  };

  /// A piece of the event stream.
  struct Event {
    journal::Position next;  ///< behind its record
    std::string text;
  };

  bool is_readable = false;
  std::string problem;  ///< when it is not
  std::vector<Joined> joined;
  std::vector<std::string> unknown;  ///< watched names of which the journal has nothing
  std::vector<Entry> records;
  std::vector<Event> events;
};

/// All members may be called by any thread.
class WebReader {
 public:
  /// `tell` is called on the reader's thread.
  WebReader(std::string directory, std::function<void(WebNews)> tell);
  ~WebReader();
  WebReader(const WebReader&) = delete;
  WebReader& operator=(const WebReader&) = delete;

  /// From now on, the records of this console are told. `Joined` or `unknown` comes once for each
  /// call.
  void Watch(const std::string& name);
  void Unwatch(const std::string& name);

  /// Whether events are told.
  void WatchEvents(bool wanted);

  /// Whether `tell` is called at each look, even when there is no news.
  void WantTicks(bool wanted);

  /// News that were told and have not been dealt with yet keep the reader from reading on.
  void Done() { --untaken_; }

  /// Runs on the reader's thread, with null when the journal cannot be read, and without a console
  /// when it has nothing of the name.
  using Job = std::function<void(const journal::Journal*, std::optional<size_t> console)>;
  void Run(const std::string& name, Job job);

 private:
  struct Waiting {
    std::string name;
    Job job;
  };
  struct Watched {
    std::optional<size_t> console;
    zevctl::TelnetStrip strip;
  };

  void Loop();
  void Follow(WebNews* news, std::set<std::string> fresh);
  void Resolve(WebNews* news, const std::set<std::string>& fresh);
  void Open();
  void Close(const std::string& problem);
  void ReadRecords(WebNews* news);
  void Tell(const journal::Record& record, WebNews* news);
  void ReadEvents(WebNews* news);
  void RunJobs(std::vector<Waiting> jobs);

  const std::string directory_;
  const std::function<void(WebNews)> tell_;
  std::atomic<int> untaken_ = 0;

  std::mutex mutex_;  // guards what follows, up to the thread's own
  std::condition_variable condition_;
  bool ends_ = false;
  std::map<std::string, int> wanted_;  // names, and how often each
  std::set<std::string> fresh_;        // that somebody has just asked for
  int events_wanted_ = 0;
  int ticks_wanted_ = 0;
  std::vector<Waiting> jobs_;

  // The thread's own.
  std::unique_ptr<journal::Journal> journal_;
  std::string problem_;
  std::chrono::steady_clock::time_point tried_;
  std::map<std::string, Watched> watched_;
  std::unique_ptr<journal::Cursor> cursor_;
  journal::Position position_;  // up to which the cursor's records have been told
  bool was_watching_ = false;   // at the last look
  size_t known_consoles_ = 0;
  bool follows_events_ = false;
  std::unique_ptr<journal::Cursor> events_;
  std::thread thread_;
};

/// The console that the name means now.
std::optional<size_t> FindConsole(const journal::Journal& journal, const std::string& name);

}  // namespace zevweb
