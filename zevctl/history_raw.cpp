#include "history_raw.h"

#include "journal_lines.h"
#include "standard_output.h"

namespace zevctl {

namespace {

constexpr size_t kFlushSize = 65536;

}  // namespace

uint64_t ShowRaw(const HistorySources& sources) {
  journal::Query query;
  query.consoles = {sources.consoles.front()};
  query.with_station = true;
  query.kinds = kInterruptions | journal::KindBit(journal::Kind::kOutput);
  query.since = FirstWall(sources);
  query.until = LastWall(sources);
  const auto cursor = sources.journal->Read(query);
  StandardOutput output;
  uint64_t missing = 0;
  journal::Record record;
  while (cursor->Next(&record)) {
    if (record.header.kind == journal::Kind::kOutput) output.Add(record.payload);
    missing += TellsOfLoss(record.header.kind) ? 1 : 0;
    if (output.queued() >= kFlushSize) output.Flush();
  }
  output.Flush();
  return missing + cursor->damages().size();
}

}  // namespace zevctl
