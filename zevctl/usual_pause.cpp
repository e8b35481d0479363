#include "usual_pause.h"

#include <algorithm>

namespace zevctl {

void Pauses::Add(int64_t wall) {
  // A clock that was set back says nothing of a pause.
  if (last_ && wall - *last_ >= kShortest) pauses_.push_back(wall - *last_);
  last_ = wall;
}

std::optional<int64_t> Pauses::Median() const {
  if (pauses_.size() < kFewest) return {};
  std::vector<int64_t> sorted = pauses_;
  const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
  std::nth_element(sorted.begin(), middle, sorted.end());
  return *middle;
}

namespace {

/// Reads one part. Returns true when all of it has been read, so that the next one follows it.
bool ReadPart(journal::Cursor& cursor, const SampleSize& size, Pauses* pauses) {
  const size_t enough = pauses->count() + size.outputs;
  size_t records = 0;
  for (journal::Record record; cursor.Next(&record);) {
    pauses->Add(record.header.wall);
    if (++records >= size.records || pauses->count() >= enough) return false;
  }
  return true;
}

}  // namespace

std::optional<int64_t> UsualPause(const CursorMaker& read, size_t console, int64_t last_output,
                                  const SampleSize& size) {
  const int64_t begin = last_output - size.span;
  const int64_t step = size.span / static_cast<int64_t>(size.parts);
  Pauses pauses;
  for (size_t part = 0; part < size.parts; ++part) {
    journal::Query query;
    query.consoles = {console};
    query.kinds = journal::KindBit(journal::Kind::kOutput);
    query.since = begin + static_cast<int64_t>(part) * step;
    query.until = part + 1 == size.parts ? last_output : *query.since + step - 1;
    const auto cursor = read(query);
    if (!ReadPart(*cursor, size, &pauses)) pauses.Break();
  }
  return pauses.Median();
}

}  // namespace zevctl
