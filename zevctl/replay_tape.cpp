#include "replay_tape.h"

#include <utility>

namespace zevctl {

using journal::Kind;
using journal::KindBit;

Tape::Tape(const journal::Journal& journal, std::vector<size_t> consoles,
           std::optional<int64_t> since, std::optional<int64_t> until)
    : journal_(journal), consoles_(std::move(consoles)), since_(since), until_(until) {}

// What happened to the station happened to the console, too: its output may be missing, the clock
// was set, the daemon started. What users did elsewhere, which the audit tells, did not.
journal::Query Tape::Base() const {
  journal::Query query;
  query.consoles = consoles_;
  query.with_station = true;
  query.kinds = ~KindBit(Kind::kAudit);
  query.since = since_;
  query.until = until_;
  return query;
}

journal::Query Tape::OnlyOfConsole() const {
  journal::Query query = Base();
  query.with_station = false;
  query.kinds &= ~KindBit(Kind::kConsole);
  return query;
}

bool Tape::IsEmpty() const {
  journal::Record record;
  return !journal_.Read(OnlyOfConsole())->Next(&record);
}

std::unique_ptr<journal::Cursor> Tape::FromStart() const {
  return journal_.Read(Base());
}

std::unique_ptr<journal::Cursor> Tape::From(const journal::Position& record) const {
  journal::Query query = Base();
  query.from = record;
  return journal_.Read(query);
}

std::unique_ptr<journal::Cursor> Tape::FromEnd() const {
  journal::Query query = OnlyOfConsole();
  query.backward = true;
  return journal_.Read(query);
}

std::unique_ptr<journal::Cursor> Tape::Before(const journal::Position& record) const {
  journal::Query query = Base();
  query.from = record;
  query.backward = true;
  return journal_.Read(query);
}

std::unique_ptr<journal::Cursor> Tape::EverBefore(const journal::Position& record) const {
  journal::Query query = Base();
  query.since.reset();
  query.from = record;
  query.backward = true;
  return journal_.Read(query);
}

Nanoseconds Tape::Pause(const Instant& earlier, const Instant& later) const {
  if (since_ && earlier.wall < *since_) return Between({*since_, 0, 0}, later);
  return Between(earlier, later);
}

Instant InstantOf(const journal::Record& record) {
  return {record.header.wall, record.header.monotonic, record.run};
}

}  // namespace zevctl
