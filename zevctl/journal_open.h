// Opening the station's journal for a command: what is said when that is not possible.
#pragma once

#include <memory>
#include <string>

#include "exit_status.h"
#include "journal/journal.h"

namespace zevctl {

/// Where the daemon keeps its journal.
std::string DefaultJournalDirectory();

/// The help of the option --journal-dir.
extern const char kJournalDirHelp[];

/// What a journal's error means for the user: what is wrong, and what to do.
Failure JournalFailure(const journal::JournalError& error, const std::string& directory);

/// Throws Failure(kFailed) when the journal cannot be read.
std::unique_ptr<journal::Journal> OpenJournal(const std::string& directory);

/// The same for a command that can do without: null when there is no journal.
std::unique_ptr<journal::Journal> OpenJournalIfAny(const std::string& directory);

}  // namespace zevctl
