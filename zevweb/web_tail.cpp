#include "web_tail.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace zevweb {

namespace {

constexpr size_t kMostHeld = 8 << 20;
constexpr size_t kRecordCost = 200;  // of a record besides its frame

size_t CostOf(const WebRecordPointer& record) {
  return record->frame.size() + kRecordCost;
}

}  // namespace

uint64_t WebTail::Find(const journal::Position& position) const {
  const auto found = std::lower_bound(entries.begin(), entries.end(), position,
                                      [](const Entry& entry, const journal::Position& place) {
                                        return entry.record->position < place;
                                      });
  return first + static_cast<uint64_t>(found - entries.begin());
}

const WebTail& WebTails::Watch(const std::string& name, WebWatcher* watcher) {
  WebTail& tail = tails_[name];
  tail.watchers.insert(watcher);
  reader_.Watch(name);
  return tail;
}

void WebTails::Unwatch(const std::string& name, WebWatcher* watcher) {
  WantTicks(watcher, false);
  const auto found = tails_.find(name);
  if (found == tails_.end() || found->second.watchers.erase(watcher) == 0) return;
  reader_.Unwatch(name);
  if (!found->second.watchers.empty()) return;
  for (const WebTail::Entry& entry : found->second.entries) held_ -= CostOf(entry.record);
  std::erase(order_, name);
  tails_.erase(found);
}

void WebTails::WantTicks(WebWatcher* watcher, bool wanted) {
  const bool has_changed = wanted ? ticked_.insert(watcher).second : ticked_.erase(watcher) > 0;
  if (has_changed) reader_.WantTicks(wanted);
}

void WebTails::Take(WebNews news) {
  reader_.Done();
  is_readable_ = news.is_readable;
  problem_ = news.problem;
  for (const WebNews::Joined& joined : news.joined) Join(joined.name, &joined);
  for (const std::string& name : news.unknown) Join(name, nullptr);
  std::set<std::string> grown;
  for (const WebNews::Entry& entry : news.records) {
    Add(entry.name, entry.record);
    grown.insert(entry.name);
  }
  DropOldest();
  for (const auto& [name, tail] : tails_) {
    if (!grown.contains("") && !grown.contains(name)) continue;
    for (WebWatcher* watcher : std::vector(tail.watchers.begin(), tail.watchers.end())) {
      watcher->RecordsCame();
    }
  }
  if (!news.events.empty()) {
    for (WebListener* listener : listeners) listener->EventsCame(news.events);
  }
  for (WebWatcher* watcher : std::vector(ticked_.begin(), ticked_.end())) watcher->Tick();
}

// A second viewer of a console joins what the first one has; the reader tells of it again.
void WebTails::Join(const std::string& name, const WebNews::Joined* joined) {
  const auto found = tails_.find(name);
  if (found == tails_.end()) return;
  WebTail& tail = found->second;
  const bool is_same = joined != nullptr && tail.console == joined->console && is_readable_;
  if (!is_same) {
    for (const WebTail::Entry& entry : tail.entries) held_ -= CostOf(entry.record);
    std::erase(order_, name);
    tail.first = tail.end();
    tail.entries.clear();
    tail.console = joined != nullptr ? joined->console : "";
    if (joined != nullptr) tail.covered_from = joined->position;
    ++tail.joins;
  }
  tail.is_known = true;
  for (WebWatcher* watcher : std::vector(tail.watchers.begin(), tail.watchers.end())) {
    watcher->ConsoleChanged();
  }
}

void WebTails::Add(const std::string& name, const WebRecordPointer& record) {
  if (!name.empty()) {
    const auto found = tails_.find(name);
    if (found != tails_.end()) AddTo(name, found->second, record);
    return;
  }
  for (auto& [each, tail] : tails_) {
    if (!tail.console.empty()) AddTo(each, tail, record);
  }
}

void WebTails::AddTo(const std::string& name, WebTail& tail, const WebRecordPointer& record) {
  tail.entries.push_back({record, tail.bytes});
  if (record->is_output()) tail.bytes += record->bytes().size();
  held_ += CostOf(record);
  order_.push_back(name);
}

void WebTails::DropOldest() {
  while (held_ > kMostHeld && !order_.empty()) {
    WebTail& tail = tails_.at(order_.front());
    order_.pop_front();
    const WebRecordPointer record = std::move(tail.entries.front().record);
    held_ -= CostOf(record);
    tail.entries.pop_front();
    ++tail.first;
    tail.covered_from = record->next;
  }
}

}  // namespace zevweb
