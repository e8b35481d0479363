// What a console printed before somebody attached to it, from the journal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "journal/journal.h"
#include "login.h"
#include "settings.h"

namespace zevctl {

/// For one session. Where the journal cannot be read, a note says so, and nothing is shown.
class AttachHistory {
 public:
  /// To be made before the user attaches. `lines`: how many at most.
  AttachHistory(const Settings& settings, std::string directory, size_t lines);
  ~AttachHistory();
  AttachHistory(const AttachHistory&) = delete;
  AttachHistory& operator=(const AttachHistory&) = delete;

  /// Shows the lines before the session that has just been opened. What the daemon sends again of
  /// them is left to the session, whose first bytes are received meanwhile. Takes a second at most.
  void Show(const std::string& console, Opening& opening);

 private:
  struct Piece {
    journal::RecordHeader header;
    journal::Position position;
    std::string payload;
  };
  using Pieces = std::vector<Piece>;

  void ShowFor(size_t console, Opening& opening);
  std::optional<size_t> Find(const std::string& console) const;
  std::optional<journal::Position> AwaitAttached(size_t console, Opening& opening);
  std::optional<journal::Position> FindAttached(size_t console) const;
  Pieces Before(size_t console, const journal::Position& place, size_t bytes) const;
  std::string After(size_t console, const journal::Position& place) const;
  size_t AwaitSeam(size_t console, const journal::Position& place, const std::string& before,
                   Opening& opening);
  std::string Print(size_t console, const Pieces& pieces) const;

  const Settings& settings_;
  std::string directory_;
  size_t lines_;
  int64_t begun_;  // wall time
  std::unique_ptr<journal::Journal> journal_;
};

}  // namespace zevctl
