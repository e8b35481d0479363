#include "web_history.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "audit_acts.h"
#include "journal_text.h"
#include "name_match.h"
#include "web_answer.h"
#include "web_deadline.h"
#include "web_past.h"
#include "web_pattern.h"
#include "web_query.h"

namespace zevweb {

namespace {

constexpr size_t kUsualLines = 200;
constexpr size_t kMostLines = 5000;
constexpr size_t kMostContext = 50;
constexpr size_t kUsualActs = 1000;
constexpr size_t kMostActs = 20'000;
constexpr std::chrono::milliseconds kAuditLimit{10'000};

void ReadTimes(const WebQuery& query, WebPastQuestion* question) {
  question->since = query.Since("since");
  question->until = query.Until("until");
  if (question->since && question->until && *question->since > *question->until) {
    throw Problem(400, "\"since\" is later than \"until\"; exchange them");
  }
}

std::optional<WebPlace> ReadPlace(const WebQuery& query, const char* name) {
  const auto text = query.Text(name);
  if (!text) return {};
  if (const auto place = ParsePlace(*text)) return place;
  throw Problem(400, "the parameter \"" + std::string(name) +
                         "\" is no place; give one that an answer had in \"previous\" or \"next\"");
}

void ReadPlaces(const WebQuery& query, WebPastQuestion* question) {
  question->before = ReadPlace(query, "before");
  question->after = ReadPlace(query, "after");
  if (question->before && question->after) {
    throw Problem(400, "\"before\" and \"after\" cannot be given both; leave one of them out");
  }
}

std::vector<std::string> AllAtCommas(const std::vector<std::string>& texts) {
  std::vector<std::string> words;
  for (const std::string& text : texts) {
    for (size_t begin = 0; begin <= text.size();) {
      const size_t end = std::min(text.find(',', begin), text.size());
      if (end > begin) words.push_back(text.substr(begin, end - begin));
      begin = end + 1;
    }
  }
  return words;
}

std::vector<std::string> ReadWords(const WebQuery& query) {
  std::vector<std::string> words = AllAtCommas(query.All("what"));
  const std::vector<std::string> known = zevctl::WordsOfActs();
  for (const std::string& word : words) {
    if (std::find(known.begin(), known.end(), word) != known.end()) continue;
    throw Problem(400, "the parameter \"what\" is none of " + zevctl::Alternatives(known));
  }
  return words;
}

/// Acts of the time that was asked for; the newest are kept.
Json AuditData(const journal::Journal& journal, zevctl::ActFilter filter,
               const zevctl::PastRange& range, size_t most) {
  WebDeadline deadline(kAuditLimit);
  bool in_time = true;
  filter.go_on = [&] { return in_time = in_time && !deadline.HasPassed(); };
  std::vector<journal::Damage> damages;
  const auto acts = zevctl::ReadActs(filter, range, journal, &damages);
  Json list = Json::array();
  const size_t skipped = acts.size() - std::min(acts.size(), most);
  for (size_t i = skipped; i < acts.size(); ++i) list.push_back(zevctl::ActData(acts[i]));
  Json data;
  data["acts"] = std::move(list);
  const auto segments = journal.segments();
  data["begins"] = segments.empty() ? Json() : Json(zevctl::StampJson(segments.front().first_wall));
  data["damages"] = damages.size();
  data["complete"] = in_time && skipped == 0;
  data["reason"] = Json();
  if (!in_time) {
    data["reason"] =
        "the search took its ten seconds before everything had been looked at; ask "
        "for a shorter time";
  } else if (skipped > 0) {
    data["reason"] =
        "only the newest are shown; ask for a shorter time, or for more with "
        "\"last\"";
  }
  return data;
}

}  // namespace

Response ShowHistory(WebJournals& journals, const std::string& log_dir, const Request& request) {
  const WebQuery query(request.query, {"since", "until", "last", "grep", "ignore_case", "plain",
                                       "invert", "context", "users", "before", "after"});
  WebPastQuestion question;
  question.names = {request.parts.at(0)};
  question.is_one = true;
  ReadTimes(query, &question);
  ReadPlaces(query, &question);
  if (const auto pattern = query.Text("grep")) {
    question.pattern = MakeWebPattern(*pattern, query.Flag("ignore_case"), query.Flag("plain"));
    question.inverted = query.Flag("invert");
    question.context = query.Number("context", 0, kMostContext);
  }
  question.users = query.Flag("users");
  question.count = query.Number("last", kUsualLines, kMostLines);
  return JsonResponse(ReadWebPast(journals, log_dir, question));
}

Response SearchPast(WebJournals& journals, const std::string& log_dir, const Request& request) {
  const WebQuery query(request.query,
                       {"q", "ignore_case", "plain", "since", "until", "limit", "users", "before"},
                       {"console"});
  WebPastQuestion question;
  question.names = query.All("console");
  if (question.names.empty()) question.names = {"*"};
  ReadTimes(query, &question);
  question.before = ReadPlace(query, "before");
  const auto pattern = query.Text("q");
  if (!pattern) throw Problem(400, "the parameter \"q\" is missing: say what to search for");
  question.pattern = MakeWebPattern(*pattern, query.Flag("ignore_case"), query.Flag("plain"));
  question.users = query.Flag("users");
  question.count = query.Number("limit", kUsualLines, kMostLines);
  return JsonResponse(ReadWebPast(journals, log_dir, question));
}

Response ShowAudit(WebJournals& journals, const Request& request) {
  const WebQuery query(request.query, {"since", "until", "user", "from", "last"},
                       {"console", "what"});
  zevctl::ActFilter filter;
  filter.consoles = query.All("console");
  filter.user = query.Text("user").value_or("");
  filter.from = query.Text("from").value_or("");
  filter.words = ReadWords(query);
  zevctl::PastRange range;
  range.since = query.Since("since", "7d");
  range.until = query.Until("until");
  const size_t most = query.Number("last", kUsualActs, kMostActs);
  WebJournals::Lease lease = journals.Take();
  if (lease.get() == nullptr) {
    throw Problem(503,
                  "there is no journal; who did what is only in the system's log then. The "
                  "daemon keeps a journal when ZEVD_JOURNAL= in qor.conf says so");
  }
  try {
    return JsonResponse(AuditData(*lease.get(), std::move(filter), range, most));
  } catch (const journal::JournalError&) {
    lease.Spoil();
    throw;
  }
}

}  // namespace zevweb
