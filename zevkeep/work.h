// What the steps of one pass share.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "chain.h"
#include "segment_store.h"

namespace zevkeep {

/// Tells the operator and the system's log.
class Teller {
 public:
  /// Writes to the system's log, where who may write to the journal's directory cannot change it.
  using Recorder = std::function<void(int priority, const std::string& text)>;

  Teller(bool verbose, Recorder record) : verbose_(verbose), record_(std::move(record)) {}

  /// On standard output, if it was asked for.
  void Detail(const std::string& text) const;
  /// On standard error: something could not be done. The pass goes on.
  void Problem(const std::string& text);
  void Record(int priority, const std::string& text) const { record_(priority, text); }

  size_t problems() const { return problems_; }

 private:
  bool verbose_;
  Recorder record_;
  size_t problems_ = 0;
};

struct Work {
  const journal::SegmentStore& store;
  Teller& tell;
  bool dry_run = false;
  uint64_t station = 0;
  journal::Chain chain = {};
  bool disk_was_full = false;

  // What has been done.
  size_t sealed = 0;
  size_t compressed = 0;
  size_t removed = 0;
};

/// A problem with a segment: notes a full disk, and tells what to do about it. `error`: the
/// system's number.
void TellFailure(Work& work, const std::string& what, int error);

// The steps. Each tells what it cannot do and leaves it for the next pass.

/// Finds the chain's ends, and finishes what an earlier pass has begun. False when nothing may be
/// done until somebody has looked.
bool LoadChain(Work& work);
void SealSegments(Work& work);
void CompressSegments(Work& work);

struct Limits;
/// Removes sealed segments beyond the limits, the oldest first, but never the newest segment: where
/// it ends, the daemon goes on.
void RemoveSegments(Work& work, const Limits& limits, int64_t now);

}  // namespace zevkeep
