// The journal as what is to be shipped: its records in their order, and the gaps between them.
// Belongs to one thread.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "fleet_message.h"
#include "journal/journal.h"

namespace zevfleet {

/// A record, or the gap before it, which is handed over first.
struct ShipItem {
  const journal::Record* record = nullptr;  ///< valid until the next call of Next()
  std::string_view console;                 ///< its name when the record was written; or empty
  std::optional<ShipGap> gap;
};

class ShipSource {
 public:
  /// Opens the journal in a directory. This and all others throw journal::JournalError.
  explicit ShipSource(const std::string& directory);

  uint64_t station() const { return journal_.station(); }
  journal::Position end() const { return journal_.end(); }

  /// Whether the directory still has this journal, and not another one that was begun since.
  bool IsSame() const;

  /// Whether the journal may have been shipped up to there: its record of that place has that
  /// number, or is gone.
  bool Has(const ShipPlace& place) const;

  /// Goes on behind a place that it has, or begins at the oldest record. `doubt` is the reason of a
  /// marker before the first record; empty for none, unless records are missing.
  void Begin(const std::optional<ShipPlace>& place, const std::string& doubt);

  /// False where there is no more; a later call goes on with what Refresh() has found.
  bool Next(ShipItem* item);

  void Refresh() { journal_.Refresh(); }

  /// How far it has been read; nothing before the first record.
  const std::optional<ShipPlace>& place() const { return place_; }

 private:
  void Open(const std::optional<ShipPlace>& place);
  std::optional<ShipGap> GapBefore(const journal::Record& record) const;
  std::string ReasonOfGap() const;
  std::string_view NameOf(const journal::Record& record) const;

  std::string directory_;
  journal::Journal journal_;
  std::unique_ptr<journal::Cursor> cursor_;
  journal::Record record_;
  bool is_held_ = false;  // the record comes behind its gap
  std::optional<ShipPlace> place_;
  std::string doubt_;
  size_t told_damages_ = 0;  // of the cursor's, those before the latest record
};

}  // namespace zevfleet
