#include "console_names.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace journal {

namespace {

bool SaysTheSame(const ConsoleName& one, const ConsoleName& other) {
  return one.name == other.name && one.address == other.address && one.port == other.port;
}

ConsoleName NameOf(const IndexedName& name) {
  return {name.name, name.address, name.port, name.since};
}

}  // namespace

std::vector<std::optional<size_t>> ConsoleNames::Add(const SegmentIndex& index) {
  const uint64_t number = index.header.run;
  Run& run = runs_[number];
  run.number = number;
  const bool defines = std::any_of(index.consoles.begin(), index.consoles.end(),
                                   [](const auto& console) { return !console.names.empty(); });
  if (defines && newest_run_ != number) {
    // Each run defines all of its consoles: those that it leaves out have gone.
    for (Console& console : consoles_) console.is_gone = true;
    newest_run_ = number;
  }
  std::vector<std::optional<size_t>> ids;
  ids.reserve(index.consoles.size());
  for (const IndexedConsole& console : index.consoles) {
    if (console.number != 0) AddConsole(run, console, index.lowest_wall);
    ids.push_back(IdOf(number, console.number));
  }
  return ids;
}

void ConsoleNames::SetDeleted(size_t id, bool is_deleted) {
  lives_[id].is_deleted = is_deleted;
  consoles_[id].is_gone = is_deleted;
}

void ConsoleNames::AddConsole(Run& run, const IndexedConsole& console, int64_t wall) {
  for (const IndexedName& name : console.names) Define(run, console.number, name);
  const auto found = run.consoles.find(console.number);
  if (found == run.consoles.end()) {
    // Its definition is lost. It gets a name that tells the number.
    const size_t id = AddNew({"#" + std::to_string(console.number), "", 0, wall});
    run.consoles[console.number] = {id, 0};
    lives_[id].run = run.number;
  } else if (!console.names.empty() || console.is_gone) {
    SetDeleted(found->second.id, console.is_gone);
  }
}

void ConsoleNames::Define(Run& run, uint32_t number, const IndexedName& name) {
  const auto [found, is_new] = run.consoles.try_emplace(number);
  // A segment that has grown tells again what it told before.
  if (!is_new && name.record <= found->second.seen) return;
  if (is_new) found->second.id = IdForNew(run, name);
  found->second.seen = name.record;
  const size_t id = found->second.id;
  lives_[id].run = run.number;
  Console& console = consoles_[id];
  const ConsoleName told = NameOf(name);
  if (SaysTheSame(console.names.back(), told)) return;
  if (console.name() != told.name) by_name_.emplace(told.name, id);
  console.names.push_back(told);
}

// The console that this one was in an earlier run, or a new one.
size_t ConsoleNames::IdForNew(const Run& run, const IndexedName& name) {
  std::optional<size_t> best;
  const auto [begin, end] = by_name_.equal_range(name.name);
  for (auto found = begin; found != end; ++found) {
    const size_t id = found->second;
    const bool is_taken = lives_[id].run == run.number;
    if (is_taken || consoles_[id].name() != name.name) continue;
    if (!best || IsBetter(id, *best, name)) best = id;
  }
  return best ? *best : AddNew(NameOf(name));
}

// Of several that were called so last: the one that is still there, then the one with the same
// address, then the newest.
bool ConsoleNames::IsBetter(size_t one, size_t other, const IndexedName& name) const {
  const auto rank = [&](size_t id) {
    const bool same = SaysTheSame(consoles_[id].names.back(), NameOf(name));
    return std::tuple(!lives_[id].is_deleted, same, id);
  };
  return rank(one) > rank(other);
}

size_t ConsoleNames::AddNew(ConsoleName name) {
  const size_t id = consoles_.size();
  by_name_.emplace(name.name, id);
  lives_.emplace_back();
  Console& console = consoles_.emplace_back();
  console.id = id;
  console.names.push_back(std::move(name));
  return id;
}

std::optional<size_t> ConsoleNames::IdOf(uint64_t run, uint32_t number) const {
  const auto found = runs_.find(run);
  if (found == runs_.end()) return {};
  const auto& consoles = found->second.consoles;
  const auto console = consoles.find(number);
  if (console == consoles.end()) return {};
  return console->second.id;
}

std::vector<size_t> ConsoleNames::Find(std::string_view name) const {
  std::vector<size_t> ids;
  const auto [begin, end] = by_name_.equal_range(name);
  for (auto found = begin; found != end; ++found) ids.push_back(found->second);
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  const auto rank = [&](size_t id) {
    const Console& console = consoles_[id];
    const bool is_called_so = console.name() == name;
    return std::tuple(is_called_so && !console.is_gone, is_called_so, id);
  };
  std::sort(ids.begin(), ids.end(),
            [&](size_t one, size_t other) { return rank(one) > rank(other); });
  return ids;
}

}  // namespace journal
