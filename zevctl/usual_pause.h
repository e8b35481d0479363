// How long a console is usually silent, from a sample of its output.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "journal/journal.h"

namespace zevctl {

/// The pauses between the outputs of a console, in nanoseconds.
class Pauses {
 public:
  /// What comes within a second of the output before it belongs to it.
  static constexpr int64_t kShortest = 1'000'000'000;

  /// With fewer pauses, nothing is usual.
  static constexpr size_t kFewest = 5;

  /// Output at this wall time, after that which was added before.
  void Add(int64_t wall);

  /// What is added next does not follow what was added before.
  void Break() { last_.reset(); }

  size_t count() const { return pauses_.size(); }

  /// Nothing when there are too few.
  std::optional<int64_t> Median() const;

 private:
  std::vector<int64_t> pauses_;
  std::optional<int64_t> last_;
};

/// Opens a cursor, as Journal::Read() does.
using CursorMaker = std::function<std::unique_ptr<journal::Cursor>(const journal::Query&)>;

/// How much of the past is looked at.
struct SampleSize {
  int64_t span = int64_t{7} * 24 * 3600 * int64_t{1'000'000'000};  ///< before the last output
  size_t parts = 8;       ///< of the span, each of which is read from its beginning
  size_t outputs = 64;    ///< that are enough of a part
  size_t records = 4096;  ///< of a part at most, for a console that prints without a pause
};

/// The console's median pause in the span that ends with its last output. No more than the sample
/// is read, however much there is: of a part that is left early, the rest is not looked at.
std::optional<int64_t> UsualPause(const CursorMaker& read, size_t console, int64_t last_output,
                                  const SampleSize& size = {});

}  // namespace zevctl
