// Who did what at the station, and when its record has holes, as the journal tells it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "journal/journal.h"

namespace zevctl {

/// One row of the audit. What a record does not tell is empty, or nothing.
struct Act {
  journal::Position position;
  int64_t wall = 0;  ///< nanoseconds since the epoch
  std::string what;
  std::string result;
  std::string user;
  std::string given_user;
  std::string from;
  std::string given_from;
  std::string console;
  std::string mode;
  std::string previous_mode;
  std::string reason;
  std::string text;
  std::string version;
  std::optional<int64_t> begin;  ///< wall time, as the next one
  std::optional<int64_t> end;
  std::optional<int64_t> count;
  std::optional<int64_t> bytes;
  std::optional<int64_t> pid;

  /// From when to when something is missing in the record.
  bool IsHole() const;

  /// About the record of all consoles, not about one of them or somebody.
  bool IsOfWholeRecord() const;

  bool is_audit = false;    ///< from a record of the audit, which tells of others' acts again
  bool is_doubled = false;  ///< its double has been found
};

/// The kinds of records that tell of acts.
journal::Kinds KindsOfActs();

/// The words of Act::what that there can be, for help and completion.
std::vector<std::string> WordsOfActs();

/// Of a record of the audit: whether no other record tells of the same.
bool OnlyAuditTells(const journal::Record& record);

/// Gathers acts from records in the order of the journal. What stands there twice, by itself and in
/// the audit, is one act; so are the beginning and the end of a pause of the record. A pause that
/// was open when the daemon ended is taken to have ended then, and has that in its reason.
class ActList {
 public:
  /// `console`: the name of the record's console, empty for the station's own records.
  void Take(const journal::Record& record, const std::string& console);

  /// In the order of the journal. A pause that has no end says so.
  const std::vector<Act>& acts() const { return acts_; }

 private:
  bool Fold(const Act& act);
  bool EndPause(const Act& act);
  void EndPauses(const Act& act);

  std::vector<Act> acts_;
};

}  // namespace zevctl
