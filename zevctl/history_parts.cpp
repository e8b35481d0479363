#include "history_parts.h"

#include <algorithm>
#include <utility>

#include "history_journal.h"

namespace zevctl {

namespace {

constexpr int64_t kSecond = 1'000'000'000;      // in nanoseconds
constexpr int64_t kShortestHole = 2 * kSecond;  // in which a log may have something
constexpr time_t kLastSecond = INT64_MAX / kSecond - 1;

/// Segments that follow one another without a pause.
struct Stretch {
  uint64_t first = 0;
  uint64_t last = 0;
  int64_t begin = 0;
  int64_t end = 0;
};

std::vector<Stretch> StretchesOf(const journal::Journal& journal) {
  std::vector<Stretch> stretches;
  for (const journal::SegmentInfo& info : journal.segments()) {
    const bool goes_on =
        !stretches.empty() && info.first_wall - stretches.back().end < kShortestHole;
    if (!goes_on) {
      stretches.push_back({info.segment, info.segment, info.first_wall, info.last_wall});
      continue;
    }
    stretches.back().last = info.segment;
    stretches.back().end = info.last_wall;
  }
  return stretches;
}

std::optional<int64_t> WallOf(const std::optional<time_t>& second, int64_t rest) {
  if (!second) return {};
  return int64_t{std::clamp(*second, -kLastSecond, kLastSecond)} * kSecond + rest;
}

/// Puts the parts behind one another.
class Maker {
 public:
  explicit Maker(const HistorySources& sources)
      : sources_(sources), since_(FirstWall(sources)), until_(LastWall(sources)) {}

  HistoryParts Run() {
    std::vector<Stretch> stretches;
    if (sources_.journal != nullptr) stretches = StretchesOf(*sources_.journal);
    Hole hole;
    for (const Stretch& stretch : stretches) {
      if (IsBehind(stretch)) return std::move(parts_);
      hole.end = stretch.begin;
      if (!sources_.from || sources_.from->segment < stretch.first) AddLogs(hole);
      AddJournal(stretch, &stretch == &stretches.back());
      hole.begin = stretch.end;
      hole.follows_moment = stretch.end - stretch.begin < kShortestHole;
    }
    hole.end.reset();
    if (!sources_.follows && !sources_.before) AddLogs(hole);
    return std::move(parts_);
  }

 private:
  // Nothing of the stretch, nor of the hole in front of it, is before the place that is the end.
  bool IsBehind(const Stretch& stretch) const {
    return sources_.before && sources_.before->segment < stretch.first;
  }

  void AddLogs(const Hole& hole) {
    heads_ = nullptr;
    const bool is_early = since_ && hole.end && *hole.end + kSecond < *since_;
    const bool is_late = until_ && hole.begin && *hole.begin - kSecond > *until_;
    if (!sources_.open_logs || is_early || is_late) return;
    std::function<Seam()> make_seam;
    if (sources_.journal != nullptr) {
      make_seam = [journal = sources_.journal, consoles = sources_.consoles, hole] {
        return Seam(*journal, consoles, hole);
      };
    }
    const LogPart::Span span{sources_.since, sources_.until};
    auto part = std::make_unique<LogPart>(sources_.open_logs, hole, span, std::move(make_seam));
    heads_ = [logs = part.get()] { return logs->Heads(); };
    parts_.push_back(std::move(part));
  }

  void AddJournal(const Stretch& stretch, bool is_last) {
    const bool is_followed = is_last && sources_.follows;
    const bool is_early = since_ && stretch.end < *since_ && !is_last;
    const bool is_late = until_ && stretch.begin > *until_ && !is_last;
    if (sources_.from && sources_.from->segment > stretch.last) return;
    if (sources_.consoles.empty() || ((is_early || is_late) && !is_followed)) return;
    const uint64_t station = sources_.journal->station();
    JournalStretch wanted;
    wanted.consoles = sources_.consoles;
    wanted.kinds = sources_.kinds;
    wanted.since = since_;
    wanted.until = until_;
    wanted.from = {station, stretch.first, 0};
    if (!is_last) wanted.to = journal::Position{station, stretch.last + 1, 0};
    if (sources_.from && wanted.from < *sources_.from) wanted.start = sources_.from;
    if (sources_.before && (!wanted.to || *sources_.before < *wanted.to)) {
      wanted.to = sources_.before;
      wanted.goes_on = true;
    }
    parts_.push_back(std::make_unique<JournalPart>(*sources_.journal, std::move(wanted), heads_));
  }

  const HistorySources& sources_;
  std::optional<int64_t> since_;
  std::optional<int64_t> until_;
  HistoryParts parts_;
  LineHeadsFinder heads_;  // of the logs before the next stretch
};

}  // namespace

std::optional<int64_t> FirstWall(const HistorySources& sources) {
  return WallOf(sources.since, 0);
}

std::optional<int64_t> LastWall(const HistorySources& sources) {
  return WallOf(sources.until, kSecond - 1);
}

HistoryParts MakeHistoryParts(const HistorySources& sources) {
  return Maker(sources).Run();
}

}  // namespace zevctl
