#include "past_lines.h"

#include <algorithm>
#include <utility>

namespace zevctl {

namespace {

using journal::Kind;
using journal::KindBit;

constexpr int64_t kLookBack = int64_t{24} * 3600 * kSecondInNanoseconds;

constexpr journal::Kinds kOfUsers =
    KindBit(Kind::kAttached) | KindBit(Kind::kLeft) | KindBit(Kind::kStarted);
constexpr journal::Kinds kOfLines = KindBit(Kind::kOutput) | KindBit(Kind::kLost) |
                                    KindBit(Kind::kConsoleGone) | KindBit(Kind::kPaused) |
                                    KindBit(Kind::kNotLogged) | KindBit(Kind::kGap) | kOfUsers;

}  // namespace

PastLines::PastLines(const journal::Journal& journal, PastLinesQuery query)
    : journal_(journal), query_(std::move(query)) {}

PastLines::ConsoleState& PastLines::StateOf(size_t console) {
  return consoles_.try_emplace(console, ConsoleState{LoggedLines(query_.keeps_returns)})
      .first->second;
}

void PastLines::LearnWhoIsAttached() {
  if (!query_.range.since) return;
  journal::Query query;
  query.consoles = query_.consoles;
  query.with_station = true;
  query.kinds = kOfUsers;
  query.since = *query_.range.since - kLookBack;
  query.until = *query_.range.since - 1;
  const auto cursor = journal_.Read(query);
  for (journal::Record record; cursor->Next(&record);) NoteUsers(record);
}

// A daemon that starts has no users; one that goes on with its journal, which is the reason that it
// then gives, may have them.
void PastLines::NoteUsers(const journal::Record& record) {
  const Kind kind = record.header.kind;
  const bool goes_on = journal::FieldReader(record.payload).Has(journal::Field::kReason);
  if (kind == Kind::kStarted && !goes_on) {
    for (auto& [console, state] : consoles_) state.users = 0;
  }
  if (!record.console) return;
  int& users = StateOf(*record.console).users;
  if (kind == Kind::kAttached) ++users;
  if (kind == Kind::kLeft) users = std::max(0, users - 1);
}

void PastLines::Read(const Taker& take) {
  LearnWhoIsAttached();
  journal::Query query;
  query.consoles = query_.consoles;
  query.with_station = true;
  query.kinds = kOfLines;
  query.since = query_.range.since;
  query.until = query_.range.until;
  const auto cursor = journal_.Read(query);
  bool goes_on = true;
  for (journal::Record record; goes_on && cursor->Next(&record);) {
    Take(record, [&](const std::string& line) {
      const size_t console = record.console.value_or(0);
      goes_on = goes_on && take({console, record.header.wall, line, StateOf(console).users > 0});
    });
  }
  WarnOfDamage(cursor->damages());
}

void PastLines::Take(const journal::Record& record, const LoggedLines::Taker& take) {
  NoteUsers(record);
  switch (record.header.kind) {
    case Kind::kOutput:
      if (!record.console) return;
      bytes_ += record.payload.size();
      return StateOf(*record.console).lines.Add(record.payload, take);
    case Kind::kLost:
    case Kind::kConsoleGone:
      if (record.console) StateOf(*record.console).lines.Close(take);
      return;
    case Kind::kPaused:
    case Kind::kNotLogged:
    case Kind::kGap:
    case Kind::kStarted:
      return Interrupt(record);
    default:
      return;
  }
}

// What the station's own records tell of concerns all consoles.
void PastLines::Interrupt(const journal::Record& record) {
  if (record.console) return StateOf(*record.console).lines.Forget();
  for (auto& [console, state] : consoles_) state.lines.Forget();
}

}  // namespace zevctl
