#include "replay_tape.h"

#include <utility>

namespace zevctl {

Tape::Tape(const journal::Journal& journal, std::vector<size_t> consoles,
           std::optional<int64_t> since, std::optional<int64_t> until)
    : journal_(journal), consoles_(std::move(consoles)), since_(since), until_(until) {}

journal::Query Tape::Base() const {
  journal::Query query;
  query.consoles = consoles_;
  query.since = since_;
  query.until = until_;
  return query;
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
  journal::Query query = Base();
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
