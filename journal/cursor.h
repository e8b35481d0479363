// Reading records in their order, and against it. Belongs to one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cursor_base.h"

namespace journal {

class ForwardCursor : public CursorBase {
 public:
  ForwardCursor(std::shared_ptr<const JournalSegments> segments, const Query& query);

  bool Next(Record* record) override;
  Position position() const override;

 private:
  void Begin();
  bool EnterNext();
  bool OpenBlock();
  bool NextInBlock(Record* record);

  uint64_t number_ = 0;  // of the segment that is read, or the last one that was
  uint64_t offset_ = 0;  // behind what has been read; a record or nothing yet begins there
  uint64_t end_ = 0;     // of the block that is read
  std::optional<SegmentScan> scan_;
};

class BackwardCursor : public CursorBase {
 public:
  BackwardCursor(std::shared_ptr<const JournalSegments> segments, const Query& query);

  bool Next(Record* record) override;
  Position position() const override;

 private:
  /// A record of the block that is read.
  struct Place {
    RecordHeader header;
    uint64_t offset = 0;
  };

  bool EnterPrevious();
  bool LoadBlock();
  void ScanBlock(const Block& block);
  bool TakePlace(Record* record);

  uint64_t number_ = 0;
  uint64_t offset_ = 0;        // before which nothing has been read
  std::vector<Place> places_;  // the newest at the end
  std::string payload_;
};

}  // namespace journal
