#include "web_reader.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <utility>

#include "name_match.h"
#include "output.h"
#include "web_frames.h"

namespace zevweb {

namespace {

constexpr std::chrono::milliseconds kPace{50};
constexpr std::chrono::milliseconds kPaceWithout{1000};  // while there is no journal
constexpr size_t kMostBytes = 1 << 20;                   // in one look
constexpr size_t kMostRecords = 5000;
constexpr int kMostUntaken = 8;

}  // namespace

// Whoever has it now comes first; two consoles whose names differ in case alone are told apart.
std::optional<size_t> FindConsole(const journal::Journal& journal, const std::string& name) {
  std::optional<size_t> found;
  for (const journal::Console& console : journal.consoles()) {
    if (!zevctl::IsSameName(console.name(), name)) continue;
    if (console.name() == name && !console.is_gone) return console.id;
    if (!found || !console.is_gone) found = console.id;
  }
  return found;
}

WebReader::WebReader(std::string directory, std::function<void(WebNews)> tell)
    : directory_(std::move(directory)), tell_(std::move(tell)), thread_([this] { Loop(); }) {}

WebReader::~WebReader() {
  {
    const std::lock_guard lock(mutex_);
    ends_ = true;
  }
  condition_.notify_all();
  thread_.join();
}

void WebReader::Watch(const std::string& name) {
  {
    const std::lock_guard lock(mutex_);
    ++wanted_[name];
    fresh_.insert(name);
  }
  condition_.notify_all();
}

void WebReader::Unwatch(const std::string& name) {
  const std::lock_guard lock(mutex_);
  const auto found = wanted_.find(name);
  if (found != wanted_.end() && --found->second == 0) wanted_.erase(found);
}

void WebReader::WatchEvents(bool wanted) {
  {
    const std::lock_guard lock(mutex_);
    events_wanted_ += wanted ? 1 : -1;
  }
  condition_.notify_all();
}

void WebReader::WantTicks(bool wanted) {
  {
    const std::lock_guard lock(mutex_);
    ticks_wanted_ += wanted ? 1 : -1;
  }
  condition_.notify_all();
}

void WebReader::Run(const std::string& name, Job job) {
  {
    const std::lock_guard lock(mutex_);
    jobs_.push_back({name, std::move(job)});
  }
  condition_.notify_all();
}

// ---- The thread ---------------------------------------------------------------------------------

void WebReader::Loop() {
  std::unique_lock lock(mutex_);
  while (!ends_) {
    const bool is_busy = !wanted_.empty() || events_wanted_ > 0 || ticks_wanted_ > 0;
    const auto is_called = [&] { return ends_ || !jobs_.empty() || !fresh_.empty(); };
    if (is_busy || !watched_.empty() || follows_events_) {
      condition_.wait_for(lock, kPace, is_called);
    } else {
      condition_.wait(lock, [&] { return is_called() || events_wanted_ + ticks_wanted_ > 0; });
    }
    if (ends_) return;
    std::vector<Waiting> jobs = std::exchange(jobs_, {});
    std::set<std::string> fresh = std::exchange(fresh_, {});
    const bool ticks = ticks_wanted_ > 0;
    follows_events_ = events_wanted_ > 0;
    std::erase_if(watched_, [&](const auto& one) { return !wanted_.contains(one.first); });
    for (const auto& [name, count] : wanted_) watched_.try_emplace(name);
    lock.unlock();
    WebNews news;
    if (untaken_ < kMostUntaken || !fresh.empty()) Follow(&news, std::move(fresh));
    RunJobs(std::move(jobs));
    const bool is_news = !news.joined.empty() || !news.unknown.empty() || !news.records.empty() ||
                         !news.events.empty();
    if (is_news || ticks) {
      news.is_readable = journal_ != nullptr;
      news.problem = problem_;
      ++untaken_;
      tell_(std::move(news));
    }
    lock.lock();
  }
}

void WebReader::Follow(WebNews* news, std::set<std::string> fresh) {
  const bool was_open = journal_ != nullptr;
  try {
    if (!was_open) Open();
    if (journal_) journal_->Refresh();
  } catch (const journal::JournalError& error) {
    Close(error.cause() == journal::JournalError::Cause::kMissing
              ? "there is no journal; the daemon keeps one when ZEVD_JOURNAL= in qor.conf says so"
              : std::string("the journal cannot be read: ") + zevctl::Printable(error.what()) +
                    "; tell the station's administrator");
  }
  if (was_open != (journal_ != nullptr)) {
    for (const auto& [name, watched] : watched_) fresh.insert(name);
  }
  if (!journal_) {
    for (const std::string& name : fresh) news->unknown.push_back(name);
    return;
  }
  try {
    Resolve(news, fresh);
    was_watching_ = !watched_.empty();
    ReadRecords(news);
    ReadEvents(news);
  } catch (const journal::JournalError&) {  // it was removed, or another one is in its place
    Close("the journal was taken away while it was read; it is looked for again");
  }
}

void WebReader::Open() {
  static constexpr auto kLimit = kPaceWithout;
  const auto now = std::chrono::steady_clock::now();
  if (!problem_.empty() && now - tried_ < kLimit) return;
  tried_ = now;
  journal_ = std::make_unique<journal::Journal>(directory_);
  problem_.clear();
  position_ = journal_->end();
}

void WebReader::Close(const std::string& problem) {
  cursor_.reset();
  events_.reset();
  journal_.reset();
  problem_ = problem;
  was_watching_ = false;
  known_consoles_ = 0;
  for (auto& [name, watched] : watched_) watched = {};
}

// A name may get another console while it is watched: one that has been deleted and made anew.
void WebReader::Resolve(WebNews* news, const std::set<std::string>& fresh) {
  const bool has_new = journal_->consoles().size() != known_consoles_;
  if (fresh.empty() && !has_new) return;
  known_consoles_ = journal_->consoles().size();
  if (!was_watching_) position_ = journal_->end();
  bool has_changed = false;
  for (auto& [name, watched] : watched_) {
    const auto console = FindConsole(*journal_, name);
    const bool is_other = console != watched.console;
    if (!is_other && !fresh.contains(name)) continue;
    if (!console) {
      news->unknown.push_back(name);
      continue;
    }
    if (is_other) {
      watched = {console, StripBefore(*journal_, *console, position_)};
      has_changed = true;
    }
    news->joined.push_back({name, journal_->consoles()[*console].name(), position_});
  }
  if (has_changed) cursor_.reset();
}

void WebReader::ReadRecords(WebNews* news) {
  journal::Query query;
  for (const auto& [name, watched] : watched_) {
    if (watched.console) query.consoles.push_back(*watched.console);
  }
  if (query.consoles.empty()) {
    cursor_.reset();
    position_ = journal_->end();
    return;
  }
  if (!cursor_) {
    query.with_station = true;
    query.kinds = ViewedKinds();
    query.from = position_;
    cursor_ = journal_->Read(query);
  }
  journal::Record record;
  size_t bytes = 0;
  for (size_t i = 0; i < kMostRecords && bytes < kMostBytes; ++i) {
    if (!cursor_->Next(&record)) {
      position_ = std::max(position_, journal_->end());
      return;
    }
    position_ = record.next;
    bytes += record.payload.size();
    Tell(record, news);
  }
}

void WebReader::Tell(const journal::Record& record, WebNews* news) {
  zevctl::TelnetStrip none;
  if (!record.console) return news->records.push_back({"", MakeWebRecord(record, none, false)});
  for (auto& [name, watched] : watched_) {
    if (watched.console != record.console) continue;
    news->records.push_back({name, MakeWebRecord(record, watched.strip, false)});
  }
}

void WebReader::ReadEvents(WebNews* news) {
  if (!follows_events_) {
    events_.reset();
    return;
  }
  if (!events_) {
    journal::Query query;
    query.kinds = EventKinds();
    query.from = journal_->end();
    events_ = journal_->Read(query);
  }
  journal::Record record;
  for (size_t i = 0; i < kMostRecords && events_->Next(&record); ++i) {
    news->events.push_back({record.next, EventPiece(*journal_, record)});
  }
}

void WebReader::RunJobs(std::vector<Waiting> jobs) {
  for (const Waiting& waiting : jobs) {
    waiting.job(journal_.get(), journal_ ? FindConsole(*journal_, waiting.name) : std::nullopt);
  }
}

}  // namespace zevweb
