// The segments of a journal as they are now: what each has, and how its bytes are reached. Belongs
// to one thread.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "console_names.h"
#include "journal_encode.h"
#include "segment_directory.h"
#include "segment_index.h"
#include "segment_source.h"

namespace journal {

/// Larger than any segment that is written; what claims to be is not read.
inline constexpr uint64_t kMostSegmentSize = uint64_t{1} << 30;

/// A segment's file, open: it stays readable when it is compressed or removed.
struct OpenSegment {
  File file;
  std::unique_ptr<SegmentSource> source;
  uint64_t file_size = 0;
  bool is_compressed = false;
  bool is_missing = false;  ///< neither form of it is there
  std::string reason;       ///< why there is no source
};

struct Segment {
  uint64_t number = 0;
  SegmentFiles files;
  uint64_t file_size = 0;
  bool may_grow = false;                       ///< it is the last one, and not sealed
  std::string fault;                           ///< why none of its records can be read
  std::optional<JournalError::Cause> cause;    ///< of the fault; none: its header is damaged
  std::optional<SegmentIndexBuilder> builder;  ///< while it may grow
  SegmentIndex finished;                       ///< when it may not
  std::vector<std::optional<size_t>> ids;      ///< of the index's consoles

  /// Has no blocks when there is a fault.
  const SegmentIndex& index() const { return builder ? builder->index() : finished; }
};

class JournalSegments {
 public:
  /// Throws JournalError, also when there is no segment that can be read.
  explicit JournalSegments(const std::string& path);

  /// Throws JournalError.
  void Refresh();

  uint64_t station() const { return station_.value_or(0); }
  const ConsoleNames& names() const { return names_; }

  using Map = std::map<uint64_t, std::shared_ptr<Segment>>;
  const Map& map() const { return segments_; }

  /// Opens the records in whatever form they are kept now.
  OpenSegment Open(uint64_t number) const;

 private:
  void Load(Segment& segment);
  bool LoadIndex(Segment& segment);
  void Scan(Segment& segment);
  bool Begin(Segment& segment, SegmentSource& source);
  void SetFault(Segment& segment, HeaderFault fault, const SegmentHeader& header);
  bool IsOwn(const SegmentHeader& header);
  void Finish(Segment& segment);
  void ThrowUnlessReadable() const;

  SegmentDirectory directory_;
  std::optional<uint64_t> station_;
  ConsoleNames names_;
  Map segments_;
};

}  // namespace journal
