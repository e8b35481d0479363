#include "web_past.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "exchange.h"
#include "history_choice.h"
#include "history_journal.h"
#include "output.h"
#include "web_deadline.h"
#include "web_page.h"

namespace zevweb {

namespace {

using journal::JournalError;
using zevctl::HistoryLine;
using zevctl::HistoryParts;
using zevctl::Json;

constexpr std::chrono::milliseconds kFindingLimit{7000};
constexpr std::chrono::milliseconds kReadingLimit{3000};
constexpr int64_t kSecond = 1'000'000'000;

constexpr char kTimeIsUp[] =
    "the search took its ten seconds before everything had been looked at; go on from "
    "\"previous\", or ask for a shorter time or fewer consoles";

std::optional<time_t> SecondOf(const std::optional<int64_t>& wall) {
  if (!wall) return {};
  return static_cast<time_t>(*wall / kSecond - (*wall % kSecond < 0 ? 1 : 0));
}

// A station with a journal need not have logs.
zevctl::PastLogs LogsIn(const std::string& directory, bool is_needed) {
  try {
    return zevctl::OpenPastLogs(directory);
  } catch (const zevctl::Failure&) {
    if (!is_needed) return {};
  }
  throw Problem(503,
                "the station has no journal, and its logs cannot be read; set ZEVD_JOURNAL= "
                "in qor.conf, or let zevweb read the logs");
}

void CheckPlace(const journal::Journal* journal, const std::optional<WebPlace>& place) {
  if (!place || !place->position) return;
  if (journal == nullptr || place->position->station != journal->station()) {
    throw JournalError(JournalError::Cause::kStation, "the position is of another station");
  }
  const auto segments = journal->segments();
  if (segments.empty() || place->position->segment < segments.front().segment) {
    throw JournalError(JournalError::Cause::kGone, "the position's segment has been removed");
  }
}

// Only people at a keyboard may mean a console by the start of its name.
zevctl::HistoryChoice Choose(const WebPastQuestion& question, const journal::Journal* journal,
                             const zevctl::PastLogs& logs) {
  try {
    auto choice = zevctl::ChooseHistory(journal, logs, question.names, question.users);
    if (!question.is_one || choice.chosen.by_name) return choice;
  } catch (const zevctl::Failure&) {
    if (!question.is_one) throw;
  }
  throw Problem(404, "there is no console \"" + zevctl::Printable(question.names.front()) +
                         "\" in the journal and the logs; the list of consoles has the names");
}

/// What was found on the way back from the end, stretch by stretch: of use when the time is up
/// before the place is known from which on there is enough.
class FoundOnTheWay {
 public:
  explicit FoundOnTheWay(size_t count) : rules_{nullptr, count, 0}, stretch_(Made()) {}

  /// A part that is older than all before begins.
  void EndStretch() {
    if (!first_) return;
    if (const auto lines = stretch_->Lines(); !lines.empty()) {
      Json all = lines;
      for (const Json& line : lines_) all.push_back(line);
      lines_ = std::move(all);
    }
    begin_ = first_;
    first_.reset();
    stretch_ = Made();
  }

  void Take(const HistoryLine& line, bool is_match) {
    const WebPlace place = PlaceOf(line);
    const bool goes_back = first_ && place.position && first_->position && !line.is_late &&
                           *place.position < *first_->position;
    if (goes_back) EndStretch();
    if (!first_) first_ = place;
    if (is_match && !line.is_late) stretch_->Take(line);
  }

  const Json& lines() const { return lines_; }

  /// All from there on has been looked at.
  const std::optional<WebPlace>& begin() const { return begin_; }

 private:
  std::unique_ptr<WebPage> Made() const {
    return std::make_unique<WebPage>(rules_, WebPage::Keep::kLast);
  }

  const WebPageRules rules_;
  std::unique_ptr<WebPage> stretch_;
  Json lines_ = Json::array();
  std::optional<WebPlace> first_;  // of the stretch
  std::optional<WebPlace> begin_;
};

/// Answers one question.
class PastReader {
 public:
  PastReader(const WebPastQuestion& question, const journal::Journal* journal,
             const zevctl::PastLogs& logs)
      : question_(question), journal_(journal) {
    zevctl::HistoryChoice choice = Choose(question, journal, logs);
    chosen_ = std::move(choice.chosen);
    wanted_ = std::move(choice.wanted);
    Limit();
    rules_.count = question.count;
    rules_.context = question.context;
    rules_.is_match = [this](const HistoryLine& line) { return IsMatch(line); };
  }

  Json Answer() {
    HistoryParts parts = zevctl::MakeHistoryParts(wanted_);
    return question_.after ? Forward(parts) : Backward(parts);
  }

 private:
  void Limit();
  bool IsMatch(const HistoryLine& line) const;
  Json Forward(const HistoryParts& parts);
  Json Backward(const HistoryParts& parts);
  std::optional<size_t> FindFirst(const HistoryParts& parts, FoundOnTheWay* found, size_t* matches);
  bool Read(const HistoryParts& parts, size_t first, WebPage* page) const;
  Json Put(const Json& lines, const std::optional<WebPlace>& previous,
           const std::optional<WebPlace>& next, bool is_complete, const char* reason) const;

  const WebPastQuestion& question_;
  const journal::Journal* journal_;
  zevctl::ChosenConsoles chosen_;
  zevctl::HistorySources wanted_;
  WebPageRules rules_;
};

// A page that begins or ends in the logs goes by time, and one in the journal by position.
void PastReader::Limit() {
  wanted_.since = SecondOf(question_.since);
  wanted_.until = SecondOf(question_.until);
  if (const auto& before = question_.before) {
    if (before->position) {
      wanted_.before = before->position;
    } else {
      wanted_.until = std::min(wanted_.until.value_or(before->second - 1), before->second - 1);
    }
  }
  if (const auto& after = question_.after) {
    if (after->position) {
      wanted_.from = after->position;
    } else {
      wanted_.since = std::max(wanted_.since.value_or(after->second + 1), after->second + 1);
    }
  }
}

bool PastReader::IsMatch(const HistoryLine& line) const {
  if (question_.since && line.wall < *question_.since) return false;
  if (question_.until && line.wall > *question_.until) return false;
  const auto& after = question_.after;
  if (after && after->position && line.position && *line.position <= *after->position) return false;
  return !question_.pattern || question_.pattern->Matches(line.text) != question_.inverted;
}

/// Reads all from that part on. False when the time was up.
bool PastReader::Read(const HistoryParts& parts, size_t first, WebPage* page) const {
  WebDeadline deadline(kReadingLimit);
  try {
    for (size_t i = first; i < parts.size(); ++i) {
      parts[i]->Read([&](const HistoryLine& line) {
        deadline.Tick();
        page->Take(line);
      });
    }
    return true;
  } catch (const WebEnough&) {
    return !deadline.HasPassed();
  }
}

Json PastReader::Forward(const HistoryParts& parts) {
  WebPage page(rules_, WebPage::Keep::kFirst);
  const bool in_time = Read(parts, 0, &page);
  const bool is_full = page.matches() >= rules_.count;
  const auto last = page.Last() ? page.Last() : question_.after;
  return Put(page.Lines(), page.First(), last, in_time || is_full, kTimeIsUp);
}

// The newest parts that have so many lines; nothing when the time was up.
std::optional<size_t> PastReader::FindFirst(const HistoryParts& parts, FoundOnTheWay* found,
                                            size_t* matches) {
  WebDeadline deadline(kFindingLimit);
  const zevctl::HistoryTest is_wanted = [&](const HistoryLine& line) {
    deadline.Tick();
    const bool is_match = IsMatch(line);
    found->Take(line, is_match);
    return is_match;
  };
  try {
    size_t first = parts.size();
    while (first > 0 && *matches < rules_.count) {
      found->EndStretch();
      const size_t left = rules_.count - *matches;
      *matches += parts[--first]->StartAtLast(left, rules_.context, is_wanted);
    }
    return first;
  } catch (const WebEnough&) {
    return {};
  }
}

Json PastReader::Backward(const HistoryParts& parts) {
  FoundOnTheWay found(rules_.count);
  size_t matches = 0;
  const auto first = FindFirst(parts, &found, &matches);
  if (!first) return Put(found.lines(), found.begin(), {}, false, kTimeIsUp);
  WebPage page(rules_, WebPage::Keep::kLast);
  if (!Read(parts, *first, &page)) {
    return Put(found.lines(), found.begin(), {}, false, kTimeIsUp);
  }
  const bool may_have_more = matches >= rules_.count;
  const auto next = page.Last() ? page.Last() : question_.before;
  return Put(page.Lines(), may_have_more ? page.First() : std::nullopt, next, true, "");
}

Json PastReader::Put(const Json& lines, const std::optional<WebPlace>& previous,
                     const std::optional<WebPlace>& next, bool is_complete,
                     const char* reason) const {
  Json data;
  data["lines"] = lines;
  data["previous"] = previous ? Json(PlaceText(*previous)) : Json();
  data["next"] = next ? Json(PlaceText(*next)) : Json();
  data["complete"] = is_complete;
  data["reason"] = is_complete ? Json() : Json(reason);
  data["remarks"] = Json::array();
  for (const std::string& remark : chosen_.remarks) data["remarks"].push_back(remark);
  if (journal_ == nullptr) {
    data["remarks"].push_back(
        "There is no journal: only the logs are shown, without what users "
        "did.");
  }
  return data;
}

}  // namespace

Json ReadWebPast(WebJournals& journals, const std::string& log_dir,
                 const WebPastQuestion& question) {
  WebJournals::Lease lease = journals.Take();
  try {
    CheckPlace(lease.get(), question.before);
    CheckPlace(lease.get(), question.after);
    const zevctl::PastLogs logs = LogsIn(log_dir, lease.get() == nullptr);
    return PastReader(question, lease.get(), logs).Answer();
  } catch (const JournalError&) {
    lease.Spoil();
    throw;
  }
}

}  // namespace zevweb
