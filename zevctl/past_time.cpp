#include "past_time.h"

#include <algorithm>
#include <ctime>
#include <limits>

#include "journal_open.h"
#include "journal_text.h"
#include "moment.h"
#include "output.h"

namespace zevctl {

namespace {

std::optional<time_t> Moment(const std::string& option, const std::string& text, time_t now) {
  if (text.empty()) return {};
  const auto moment = ParseMoment(text, now);
  if (moment) return moment;
  throw Failure(ExitStatus::kUsage,
                option + ": \"" + Printable(text) + "\" is no time; write " + kMomentForms);
}

}  // namespace

int64_t NanosecondsOf(time_t seconds) {
  constexpr time_t kMost = std::numeric_limits<int64_t>::max() / kSecondInNanoseconds - 1;
  return std::clamp(seconds, -kMost, kMost) * kSecondInNanoseconds;
}

// The end's whole second belongs to the range.
PastRange ReadRange(const std::string& since, const std::string& until) {
  const time_t now = time(nullptr);
  const auto begin = Moment("--since", since, now);
  const auto end = Moment("--until", until, now);
  if (begin && end && *begin > *end) {
    throw Failure(ExitStatus::kUsage, "--since is later than --until; exchange them");
  }
  PastRange range;
  if (begin) range.since = NanosecondsOf(*begin);
  if (end) range.until = NanosecondsOf(*end) + kSecondInNanoseconds - 1;
  return range;
}

std::string WhereJournalBegins(const journal::Journal& journal, const PastRange& range) {
  const auto segments = journal.segments();
  if (segments.empty()) return "";
  const int64_t begin = segments.front().first_wall;
  if (range.since && *range.since >= begin) return "";
  return "The journal begins at " + StampText(begin) + ".\n";
}

void WarnOfDamage(const std::vector<journal::Damage>& damages) {
  for (const journal::Damage& damage : damages) {
    Warn("the journal is damaged at " + journal::PositionText(damage.position) + ": " +
         Printable(damage.reason) + "; \"zevctl journal verify\" tells more");
  }
}

ExitStatus WithJournalErrors(const std::string& directory,
                             const std::function<ExitStatus()>& command) try {
  return command();
} catch (const journal::JournalError& error) {
  throw JournalFailure(error, directory);
}

}  // namespace zevctl
