#include "journal_open.h"

#include "output.h"
#include "settings.h"

namespace zevctl {

namespace {

using Cause = journal::JournalError::Cause;

std::string AdviceFor(Cause cause) {
  switch (cause) {
    case Cause::kMissing:
      return "the daemon writes one when ZEVD_JOURNAL= in qor.conf says so; --journal-dir names "
             "another directory";
    case Cause::kForeign:
      return "name the daemon's own journal with --journal-dir";
    case Cause::kVersion:
      return "use the zevctl that came with the daemon that wrote it";
    case Cause::kUnreadable:
      return "it is for root and the group of the station's files";
    case Cause::kGone:
      return "ask for a later time: what is older has been removed";
    case Cause::kStation:
      return "use positions of this station only";
  }
  return "look for the cause in the system's log";
}

}  // namespace

const char kJournalDirHelp[] = "The daemon's journal";

std::string DefaultJournalDirectory() {
  return kStationRoot + "/journal";
}

Failure JournalFailure(const journal::JournalError& error, const std::string& directory) {
  const std::string what = error.cause() == Cause::kMissing
                               ? "there is no journal in " + Printable(directory)
                               : "the journal in " + Printable(directory) +
                                     " cannot be read: " + Printable(error.what());
  return {ExitStatus::kFailed, what + "; " + AdviceFor(error.cause())};
}

std::unique_ptr<journal::Journal> OpenJournal(const std::string& directory) try {
  return std::make_unique<journal::Journal>(directory);
} catch (const journal::JournalError& error) {
  throw JournalFailure(error, directory);
}

std::unique_ptr<journal::Journal> OpenJournalIfAny(const std::string& directory) try {
  return std::make_unique<journal::Journal>(directory);
} catch (const journal::JournalError& error) {
  if (error.cause() == Cause::kMissing) return nullptr;
  throw JournalFailure(error, directory);
}

}  // namespace zevctl
