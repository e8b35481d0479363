// Putting the configuration of the station's lines in place, and taking it back when they do not
// start.
#pragma once

#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "config_console.h"
#include "config_file.h"

namespace zevctl {

/// One change of lines.yaml. Unless it is kept, the file is put back as it was when the object
/// goes.
class LinesChange {
 public:
  /// Writes the new file under another name. Throws Failure(kFailed) with everything as it was.
  LinesChange(const ConfigDirectory& directory, const std::vector<ConfigConsole>& consoles);
  LinesChange(const LinesChange&) = delete;
  LinesChange& operator=(const LinesChange&) = delete;
  ~LinesChange();

  /// Puts the new file in place, has the service read it, and waits until every line listens.
  /// Throws Failure(kFailed) when one does not.
  void Start();

  /// The new file stays.
  void Keep() { started_ = false; }

  /// What the user has to do, where there is nothing here to start services with.
  const std::string& advice() const { return advice_; }

 private:
  void PutBack();
  bool RunsServices() const;

  const ConfigDirectory& directory_;
  std::vector<Line> lines_;
  std::string before_;  // the old file's content
  bool had_file_ = false;
  std::optional<StagedFile> staged_;  // nothing when the content is the same
  size_t new_lines_ = 0;              // those that are started, be it again
  bool started_ = false;
  std::string advice_;
};

/// The lines of the consoles.
std::vector<Line> LinesOf(const std::vector<ConfigConsole>& consoles);

/// The present lines.yaml, which may be missing. Throws Failure(kFailed) when it cannot be used.
ReadFile PresentLines(const ConfigDirectory& directory);

/// The ports of present lines that get something else behind them, or are gone: their users are
/// cut off. Throws Failure(kFailed) when the present file cannot be used.
std::set<std::string> ChangedLines(const ConfigDirectory& directory,
                                   const std::vector<ConfigConsole>& consoles);

/// How long so many lines may take to start.
std::chrono::milliseconds StartLimit(size_t lines);

}  // namespace zevctl
