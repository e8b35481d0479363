// Reading several log files as one, in the order of time.
#pragma once

#include <cstddef>
#include <ctime>
#include <functional>
#include <limits>
#include <memory>
#include <vector>

#include "log_directories.h"
#include "log_reader.h"
#include "log_record.h"

namespace zevctl {

using LogReaders = std::vector<std::unique_ptr<LogReader>>;

/// Opens the wanted logs of all directories. Throws Failure(kFailed) when one cannot be opened.
LogReaders OpenLogs(const std::vector<LogDirectory>& directories, const WantedLogs& wanted);

/// Moves each reader to a place from which all of them together show at least the last `count`
/// records, if there are as many. They may show some earlier ones as well.
void GoToLastRecords(const LogReaders& readers, size_t count);

/// What is done with each record; it is valid during the call only.
using RecordHandler = std::function<void(const LogReader&, const Record&)>;

/// What to do with the unfinished record of a file.
using UnfinishedRule = std::function<Unfinished(const LogReader&)>;

/// Greater than the time of every record.
constexpr time_t kEndOfTime = std::numeric_limits<time_t>::max();

/// Hands over the records from the readers' positions on in the order of time, and stops at the
/// first that is later than `end`, in seconds since the epoch. Of records of the same second, those
/// of the file whose first record is older come first; if those are of the same second too, those
/// of the file whose last change is older.
void ReadInOrder(LogReaders& readers, const UnfinishedRule& unfinished, time_t end,
                 const RecordHandler& handle);

}  // namespace zevctl
