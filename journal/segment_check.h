// Verifying one segment: its records, its index, and its seal. Its place among the others is
// verify.h's.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "journal_encode.h"
#include "segment_store.h"

namespace journal {

/// Something that is wrong.
struct Finding {
  uint64_t segment = 0;            ///< 0: the journal itself
  std::string file;                ///< its name in the directory; empty when there is none
  std::optional<uint64_t> offset;  ///< in the segment's uncompressed bytes
  std::string problem;
  std::string advice;
};

// What to do, which several findings share.
extern const char kCompare[];    ///< something was changed
extern const char kBringBack[];  ///< something is missing
extern const char kLost[];       ///< records are damaged

class SegmentCheck {
 public:
  /// `is_last`: the daemon may be writing to it.
  SegmentCheck(const SegmentStore& store, uint64_t station, uint64_t segment, bool is_last)
      : store_(&store), station_(station), segment_(segment), is_last_(is_last) {}

  /// `files`: what the segment has. Throws nothing that is about this segment alone.
  void Run(const StoredSegment& files);

  void Add(const std::string& file, const std::string& problem, const std::string& advice,
           std::optional<uint64_t> offset = {});

  const std::vector<Finding>& findings() const { return findings_; }
  const SealedIndex& sealed() const { return sealed_; }
  /// With an index that can be trusted.
  bool is_sealed() const { return is_sealed_; }
  /// What the records are; without it, the index has to tell.
  const SegmentIndex* records() const;

 private:
  void ReadIndex();
  void CheckRecords(Form form);
  void CheckRecordsOf(const std::string& name, SegmentSource& source);
  void CompareWithSeal(const std::string& name, SegmentSource& source);
  void CheckUnsealed(const std::string& name, HeaderFault fault);
  void CheckNumbers(const std::string& name);

  const SegmentStore* store_;
  uint64_t station_;
  uint64_t segment_;
  bool is_last_;
  std::vector<Finding> findings_;
  SealedIndex sealed_;
  bool is_sealed_ = false;
  std::optional<SegmentIndex> found_;
};

}  // namespace journal
