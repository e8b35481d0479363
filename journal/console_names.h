// The journal's consoles through all runs of the daemon: within a run a console goes by its number,
// from run to run by its name. Belongs to one thread.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "journal.h"
#include "segment_index.h"

namespace journal {

class ConsoleNames {
 public:
  /// What a segment says of its consoles; segments in their order. One that has grown is added
  /// again. Returns the consoles' ids, each at the place that its console has in the index; the
  /// station itself has none.
  std::vector<std::optional<size_t>> Add(const SegmentIndex& index);

  std::optional<size_t> IdOf(uint64_t run, uint32_t number) const;
  const std::vector<Console>& consoles() const { return consoles_; }
  std::vector<size_t> Find(std::string_view name) const;

 private:
  /// A console's number in one run.
  struct Numbered {
    size_t id = 0;
    uint64_t seen = 0;  ///< the running number of its last definition that was added
  };
  struct Run {
    uint64_t number = 0;
    std::unordered_map<uint32_t, Numbered> consoles;
  };
  /// What must be known of a console beside what readers see.
  struct Life {
    bool is_deleted = false;
    std::optional<uint64_t> run;  ///< the last one that it was in
  };

  void AddConsole(Run& run, const IndexedConsole& console, int64_t wall);
  void Define(Run& run, uint32_t number, const IndexedName& name);
  void SetDeleted(size_t id, bool is_deleted);
  size_t IdForNew(const Run& run, const IndexedName& name);
  bool IsBetter(size_t one, size_t other, const IndexedName& name) const;
  size_t AddNew(ConsoleName name);

  std::vector<Console> consoles_;
  std::vector<Life> lives_;                                  // of the consoles
  std::multimap<std::string, size_t, std::less<>> by_name_;  // by every name that they ever had
  std::unordered_map<uint64_t, Run> runs_;
  std::optional<uint64_t> newest_run_;  // of those that define any console
};

}  // namespace journal
