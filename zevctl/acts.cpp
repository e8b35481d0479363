#include "acts.h"

#include <algorithm>
#include <set>

#include "name_match.h"

namespace zevctl {

namespace {

using journal::Field;
using journal::Kind;

// Both records of one act are made within moments.
constexpr int64_t kMostBetweenDoubles = 2'000'000'000;

constexpr char kPause[] = "pause";
constexpr char kNotLogged[] = "not-logged";
constexpr char kStart[] = "start";
constexpr char kStop[] = "stop";

/// What the record of a kind tells; the audit's own words are in the record.
struct KindRow {
  Kind kind;
  const char* what;
  const char* result;
};

constexpr KindRow kKinds[] = {
    {Kind::kAudit, "", ""},
    {Kind::kAttached, "attach", "accepted"},
    {Kind::kLeft, "leave", "done"},
    {Kind::kMode, "mode", "done"},
    {Kind::kDisabled, "disable", "done"},
    {Kind::kEnabled, "enable", "done"},
    {Kind::kMessage, "msg", "done"},
    {Kind::kBreak, "break", "done"},
    {Kind::kPaused, kPause, ""},
    {Kind::kNotLogged, kNotLogged, ""},
    {Kind::kGap, "gap", ""},
    {Kind::kTorn, "torn", ""},
    {Kind::kClockStep, "clock-step", ""},
    {Kind::kStarted, kStart, ""},
    {Kind::kStopped, kStop, ""},
};

// What only the audit tells of.
constexpr const char* kAuditWords[] = {"login",     "clear",  "force",
                                       "reconnect", "listen", "security"};

struct TextRow {
  Field field;
  std::string Act::*text;
};

constexpr TextRow kTexts[] = {
    {Field::kUser, &Act::user},       {Field::kGivenUser, &Act::given_user},
    {Field::kFrom, &Act::from},       {Field::kGivenFrom, &Act::given_from},
    {Field::kMode, &Act::mode},       {Field::kPreviousMode, &Act::previous_mode},
    {Field::kReason, &Act::reason},   {Field::kText, &Act::text},
    {Field::kVersion, &Act::version}, {Field::kConsole, &Act::console},
    {Field::kWhat, &Act::what},       {Field::kResult, &Act::result},
};

struct NumberRow {
  Field field;
  std::optional<int64_t> Act::*number;
};

constexpr NumberRow kNumbers[] = {
    {Field::kBegin, &Act::begin}, {Field::kEnd, &Act::end}, {Field::kCount, &Act::count},
    {Field::kBytes, &Act::bytes}, {Field::kPid, &Act::pid},
};

const KindRow* RowOf(Kind kind) {
  const auto* row = std::find_if(std::begin(kKinds), std::end(kKinds),
                                 [&](const KindRow& candidate) { return candidate.kind == kind; });
  return row == std::end(kKinds) ? nullptr : row;
}

Act ActOf(const journal::Record& record, const KindRow& row, const std::string& console) {
  Act act;
  act.position = record.position;
  act.wall = record.header.wall;
  act.what = row.what;
  act.result = row.result;
  act.console = console;
  act.is_audit = row.kind == Kind::kAudit;
  const journal::FieldReader fields(record.payload);
  for (const TextRow& text : kTexts) {
    if (const std::string_view value = fields.Text(text.field); !value.empty()) {
      act.*text.text = value;
    }
  }
  for (const NumberRow& number : kNumbers) act.*number.number = fields.Number(number.field);
  return act;
}

// What a record leaves out does not speak against it.
bool AgreeOn(const std::string& a, const std::string& b) {
  return a.empty() || b.empty() || a == b;
}

// The name that a login has proved, or else the one that was given.
const std::string& NameOf(const Act& act) {
  return act.user.empty() ? act.given_user : act.user;
}

bool AreDoubles(const Act& a, const Act& b) {
  return a.is_audit != b.is_audit && a.what == b.what && a.result == b.result &&
         IsSameName(a.console, b.console) && NameOf(a) == NameOf(b) && AgreeOn(a.from, b.from) &&
         AgreeOn(a.mode, b.mode);
}

// Each of two doubles may tell what the other does not.
void Complete(Act* act, const Act& other) {
  for (const TextRow& row : kTexts) {
    if ((act->*row.text).empty()) act->*row.text = other.*row.text;
  }
  for (const NumberRow& row : kNumbers) {
    if (!(act->*row.number)) act->*row.number = other.*row.number;
  }
}

}  // namespace

bool Act::IsHole() const {
  return what == kNotLogged || what == "gap" || what == "torn";
}

bool Act::IsOfWholeRecord() const {
  constexpr const char* kWords[] = {"gap", "torn", "clock-step", kStart, kStop};
  return console.empty() &&
         std::find(std::begin(kWords), std::end(kWords), what) != std::end(kWords);
}

journal::Kinds KindsOfActs() {
  journal::Kinds kinds = 0;
  for (const KindRow& row : kKinds) kinds |= journal::KindBit(row.kind);
  return kinds;
}

std::vector<std::string> WordsOfActs() {
  std::set<std::string> words(std::begin(kAuditWords), std::end(kAuditWords));
  for (const KindRow& row : kKinds) words.insert(row.what);
  words.erase("");
  words.erase(kPause);
  return {words.begin(), words.end()};
}

bool OnlyAuditTells(const journal::Record& record) {
  const journal::FieldReader fields(record.payload);
  const std::string_view what = fields.Text(Field::kWhat);
  return fields.Text(Field::kResult) == "refused" ||
         std::find(std::begin(kAuditWords), std::end(kAuditWords), what) != std::end(kAuditWords);
}

void ActList::Take(const journal::Record& record, const std::string& console) {
  const KindRow* row = RowOf(record.header.kind);
  if (row == nullptr) return;
  Act act = ActOf(record, *row, console);
  if (Fold(act)) return;
  if (act.what == kStart || act.what == kStop) EndPauses(act);
  if (act.what == kNotLogged && EndPause(act)) return;
  if (act.what == kPause) {
    act.what = kNotLogged;
    if (!act.begin) act.begin = act.wall;
  }
  acts_.push_back(std::move(act));
}

bool ActList::Fold(const Act& act) {
  for (auto former = acts_.rbegin(); former != acts_.rend(); ++former) {
    if (act.wall - former->wall > kMostBetweenDoubles) return false;
    if (former->is_doubled || !AreDoubles(*former, act)) continue;
    Complete(&*former, act);
    former->is_doubled = true;
    return true;
  }
  return false;
}

// No pause outlives the daemon or its journal, and one that was killed has not told the end.
// Switching has a reason.
void ActList::EndPauses(const Act& act) {
  const char* why = act.reason.empty() ? "The daemon ended." : "The journal was switched off.";
  for (auto former = acts_.rbegin(); former != acts_.rend(); ++former) {
    if (former->what == kStart || former->what == kStop) return;
    if (former->what != kNotLogged || former->end) continue;
    former->end = act.wall;
    former->reason += (former->reason.empty() ? "" : " ") + std::string(why);
  }
}

// The end of a pause tells all that its beginning has told.
bool ActList::EndPause(const Act& act) {
  for (auto former = acts_.rbegin(); former != acts_.rend(); ++former) {
    if (former->what != kNotLogged || !IsSameName(former->console, act.console)) continue;
    if (former->end) return false;
    const auto begin = act.begin ? act.begin : former->begin;
    Complete(&*former, act);
    former->begin = begin;
    if (!former->end) former->end = act.wall;
    return true;
  }
  return false;
}

}  // namespace zevctl
