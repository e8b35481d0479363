#include "audit_acts.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include "exit_status.h"
#include "journal_consoles.h"
#include "journal_text.h"
#include "name_match.h"
#include "output.h"

namespace zevctl {

namespace {

using Json = nlohmann::ordered_json;

/// What a filter asks for.
class WantedActs {
 public:
  WantedActs(const ActFilter& filter, const journal::Journal& journal) : filter_(filter) {
    if (filter.consoles.empty()) return;
    names_ = NamesMeant(journal.consoles());
  }

  bool Has(const Act& act) const {
    return HasConsole(act) && IsBy(act) && IsFrom(act) &&
           (filter_.words.empty() ||
            std::find(filter_.words.begin(), filter_.words.end(), act.what) != filter_.words.end());
  }

 private:
  // A name that the journal does not know may be one at which somebody was refused.
  std::vector<std::string> NamesMeant(const std::vector<journal::Console>& consoles) const {
    std::vector<std::string> names;
    for (const std::string& typed : filter_.consoles) {
      names.push_back(typed);
      try {
        const ChosenConsoles chosen = ChooseConsoles(consoles, {typed});
        names.insert(names.end(), chosen.names.begin(), chosen.names.end());
      } catch (const Failure&) {
        continue;
      }
    }
    return names;
  }

  // Holes in the record of the whole station are holes in that of each console.
  bool HasConsole(const Act& act) const {
    if (filter_.consoles.empty() || act.IsOfWholeRecord()) return true;
    return std::any_of(names_.begin(), names_.end(),
                       [&](const std::string& name) { return NameMatches(act.console, name); });
  }

  bool IsBy(const Act& act) const {
    return filter_.user.empty() || filter_.user == act.user || filter_.user == act.given_user;
  }

  bool IsFrom(const Act& act) const {
    return filter_.from.empty() || filter_.from == act.from || filter_.from == act.given_from;
  }

  const ActFilter& filter_;
  std::vector<std::string> names_;
};

Json TextOrNull(const std::string& text) {
  return text.empty() ? Json() : Json(Utf8(text));
}

Json NumberOrNull(const std::optional<int64_t>& number) {
  return number ? Json(*number) : Json();
}

Json TimeOrNull(const std::optional<int64_t>& wall) {
  return wall ? Json(StampJson(*wall)) : Json();
}

}  // namespace

std::vector<Act> ReadActs(const ActFilter& filter, const PastRange& range,
                          const journal::Journal& journal, std::vector<journal::Damage>* damages) {
  journal::Query query;
  query.kinds = KindsOfActs();
  query.since = range.since;
  query.until = range.until;
  const auto cursor = journal.Read(query);
  ActList list;
  for (journal::Record record; cursor->Next(&record);) {
    list.Take(record, record.console ? journal.consoles()[*record.console].name() : "");
    if (filter.go_on && !filter.go_on()) break;
  }
  *damages = cursor->damages();
  const WantedActs wanted(filter, journal);
  std::vector<Act> acts;
  std::copy_if(list.acts().begin(), list.acts().end(), std::back_inserter(acts),
               [&](const Act& act) { return wanted.Has(act); });
  return acts;
}

Json ActData(const Act& act) {
  return {{"time", StampJson(act.wall)},
          {"what", Utf8(act.what)},
          {"result", TextOrNull(act.result)},
          {"user", TextOrNull(act.user)},
          {"given_user", TextOrNull(act.given_user)},
          {"from", TextOrNull(act.from)},
          {"given_from", TextOrNull(act.given_from)},
          {"console", TextOrNull(act.console)},
          {"mode", TextOrNull(act.mode)},
          {"previous_mode", TextOrNull(act.previous_mode)},
          {"reason", TextOrNull(act.reason)},
          {"text", TextOrNull(act.text)},
          {"begin", TimeOrNull(act.begin)},
          {"end", TimeOrNull(act.end)},
          {"count", NumberOrNull(act.count)},
          {"bytes", NumberOrNull(act.bytes)},
          {"version", TextOrNull(act.version)},
          {"pid", NumberOrNull(act.pid)},
          {"position", journal::PositionText(act.position)}};
}

}  // namespace zevctl
