#include "fleet_source.h"

#include <algorithm>

#include "config_file.h"

namespace zevfleet {

namespace {

using journal::JournalError;
using journal::Position;
using journal::Record;
using Cause = journal::JournalError::Cause;

constexpr uint64_t kFirstNumber = 1;

journal::Query From(const Position& position) {
  journal::Query query;
  query.from = position;
  return query;
}

}  // namespace

ShipSource::ShipSource(const std::string& directory)
    : directory_(directory), journal_(directory), cursor_(journal_.Read({})) {}

// The number was drawn when the journal was begun. Where the file cannot be read nothing is known.
bool ShipSource::IsSame() const {
  const zevctl::ReadFile id = zevctl::ReadWhole(directory_ + "/id");
  if (id.kind != zevctl::FileKind::kRegular) return id.kind != zevctl::FileKind::kMissing;
  const auto position = journal::ParsePosition(id.text.substr(0, id.text.find('\n')) + ":0:0");
  return !position || position->station == station();
}

bool ShipSource::Has(const ShipPlace& place) const try {
  if (place.position.station != station()) return false;
  const auto cursor = journal_.Read(From(place.position));
  Record record;
  if (!cursor->Next(&record)) return false;
  if (record.position == place.position) {
    return record.header.number == place.number && record.header.wall == place.wall;
  }
  return !cursor->damages().empty();  // what stood there cannot be read any more
} catch (const JournalError& error) {
  if (error.cause() != Cause::kGone) throw;
  return true;
}

void ShipSource::Begin(const std::optional<ShipPlace>& place, const std::string& doubt) {
  is_held_ = false;
  told_damages_ = 0;
  place_ = place;
  doubt_ = doubt;
  Open(place && place->position.station == station() ? place : std::nullopt);
}

void ShipSource::Open(const std::optional<ShipPlace>& place) try {
  cursor_ = journal_.Read(place ? From(place->position) : journal::Query());
  Record record;
  if (place && place->is_behind && cursor_->Next(&record) && record.position != place->position) {
    cursor_ = journal_.Read(From(place->position));  // that was none that has been shipped
  }
} catch (const JournalError& error) {
  if (error.cause() != Cause::kGone) throw;
  cursor_ = journal_.Read({});
}

std::string_view ShipSource::NameOf(const Record& record) const {
  if (!record.console) return {};
  const auto& names = journal_.consoles()[*record.console].names;
  const auto behind = std::ranges::find_if(
      names, [&](const auto& name) { return name.since > record.header.wall; });
  return behind == names.begin() ? names.front().name : std::prev(behind)->name;
}

// Records are numbered without a hole, so a hole is what is missing. A number that is lower than
// expected means that the journal has lost what had been shipped already: nothing is missing.
std::optional<ShipGap> ShipSource::GapBefore(const Record& record) const {
  const bool is_same = place_ && place_->position.station == station();
  const uint64_t expected = is_same ? place_->next() : kFirstNumber;
  const uint64_t missing = record.header.number > expected ? record.header.number - expected : 0;
  if (missing == 0 && doubt_.empty()) return {};
  return ShipGap{place_, missing, doubt_.empty() ? ReasonOfGap() : doubt_};
}

std::string ShipSource::ReasonOfGap() const {
  const auto& damages = cursor_->damages();
  if (damages.size() == told_damages_) return "removed before it was shipped";
  const journal::Damage& damage = damages.back();
  return "the journal cannot be read at " + journal::PositionText(damage.position) + ": it " +
         damage.reason;
}

bool ShipSource::Next(ShipItem* item) {
  *item = {};
  if (!is_held_) {
    if (!cursor_->Next(&record_)) return false;
    item->gap = GapBefore(record_);
    told_damages_ = cursor_->damages().size();
  }
  is_held_ = item->gap.has_value();
  doubt_.clear();
  place_ = ShipPlace{record_.position, record_.header.number, record_.header.wall, !is_held_};
  item->record = &record_;
  item->console = NameOf(record_);
  return true;
}

}  // namespace zevfleet
