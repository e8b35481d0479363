// What readers see, put together from its pieces.
#include <memory>

#include "cursor.h"
#include "journal.h"
#include "journal_segments.h"

namespace journal {

struct Journal::Implementation {
  std::shared_ptr<JournalSegments> segments;  // the cursors have it, too
};

Journal::Journal(const std::string& directory)
    : implementation_(std::make_unique<Implementation>()) {
  implementation_->segments = std::make_shared<JournalSegments>(directory);
}

Journal::~Journal() = default;

uint64_t Journal::station() const {
  return implementation_->segments->station();
}

void Journal::Refresh() {
  implementation_->segments->Refresh();
}

const std::vector<Console>& Journal::consoles() const {
  return implementation_->segments->names().consoles();
}

std::vector<size_t> Journal::Find(std::string_view name) const {
  return implementation_->segments->names().Find(name);
}

std::vector<SegmentInfo> Journal::segments() const {
  std::vector<SegmentInfo> infos;
  for (const auto& [number, segment] : implementation_->segments->map()) {
    const SegmentIndex& index = segment->index();
    infos.push_back({number, segment->files.has_index, segment->files.has_compressed, index.size,
                     segment->file_size, index.lowest_wall, index.highest_wall});
  }
  return infos;
}

Position Journal::end() const {
  const auto& map = implementation_->segments->map();
  if (map.empty()) return {station(), 1, kSegmentHeaderSize};
  const auto& [number, segment] = *map.rbegin();
  return {station(), number, segment->index().size};
}

std::unique_ptr<Cursor> Journal::Read(const Query& query) const {
  if (query.backward) return std::make_unique<BackwardCursor>(implementation_->segments, query);
  return std::make_unique<ForwardCursor>(implementation_->segments, query);
}

}  // namespace journal
