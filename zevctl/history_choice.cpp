#include "history_choice.h"

#include <algorithm>

#include "journal_lines.h"
#include "log_merge.h"

namespace zevctl {

namespace {

using journal::Kind;
using journal::KindBit;
using Names = std::vector<std::string>;

constexpr char kConsolidated[] = "consolidated";

constexpr journal::Kinds kShownKinds = kInterruptions | KindBit(Kind::kOutput) |
                                       KindBit(Kind::kConsoleGone) | KindBit(Kind::kConnected) |
                                       KindBit(Kind::kDisabled) | KindBit(Kind::kEnabled) |
                                       KindBit(Kind::kEvent) | KindBit(Kind::kClockStep);

constexpr journal::Kinds kUserKinds =
    KindBit(Kind::kInput) | KindBit(Kind::kAttached) | KindBit(Kind::kLeft) | KindBit(Kind::kMode) |
    KindBit(Kind::kMessage) | KindBit(Kind::kBreak) | KindBit(Kind::kAudit);

}  // namespace

PastLogs OpenPastLogs(const std::string& log_dir) {
  PastLogs logs;
  logs.directories = OpenLogDirectories(log_dir);
  logs.names = NamesIn(logs.directories);
  logs.names.erase(kConsolidated);
  return logs;
}

HistoryChoice ChooseHistory(const journal::Journal* journal, const PastLogs& logs,
                            const Names& typed, bool users) {
  const std::vector<journal::Console> none;
  HistoryChoice choice;
  const Names names(logs.names.begin(), logs.names.end());
  choice.chosen = ChooseConsoles(journal != nullptr ? journal->consoles() : none, typed, names);
  HistorySources& wanted = choice.wanted;
  if (!choice.chosen.ids.empty()) wanted.journal = journal;
  wanted.consoles = choice.chosen.ids;
  wanted.kinds = users ? kShownKinds | kUserKinds : kShownKinds;
  const WantedLogs wanted_logs(choice.chosen.names, logs.names);
  const bool has_logs = std::any_of(names.begin(), names.end(),
                                    [&](const std::string& name) { return wanted_logs.Has(name); });
  if (has_logs) {
    wanted.open_logs = [&logs, wanted_logs] { return OpenLogs(logs.directories, wanted_logs); };
  }
  return choice;
}

}  // namespace zevctl
