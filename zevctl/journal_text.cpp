#include "journal_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <nlohmann/json.hpp>

#include "console_words.h"
#include "output.h"

namespace zevctl {

namespace {

using journal::Field;
using journal::FieldReader;
using journal::Kind;

constexpr int64_t kNanosecond = 1'000'000'000;  // of them in a second

struct Moment {
  time_t seconds;
  int64_t nanoseconds;  // from 0 on, before 1970, too
};

Moment Split(int64_t wall) {
  const int64_t rest = wall % kNanosecond;
  return {static_cast<time_t>(wall / kNanosecond - (rest < 0 ? 1 : 0)),
          rest < 0 ? rest + kNanosecond : rest};
}

std::string Formatted(const char* format, const tm& fields) {
  std::array<char, 64> text{};
  strftime(text.data(), text.size(), format, &fields);
  return text.data();
}

std::string Digits(int64_t number, int count) {
  std::array<char, 24> text{};
  snprintf(text.data(), text.size(), ".%0*lld", count, static_cast<long long>(number));
  return text.data();
}

// ---- Words --------------------------------------------------------------------------------------

std::string Text(const FieldReader& fields, Field field) {
  return std::string(fields.Text(field));
}

std::string Number(const FieldReader& fields, Field field) {
  return std::to_string(fields.Number(field).value_or(0));
}

std::string Counted(const FieldReader& fields, Field field, const std::string& what) {
  const std::string number = Number(fields, field);
  return number + " " + what + (number == "1" ? "" : "s");
}

// "ann@10.0.0.5", and the name that she gave if it is another.
std::string Who(const FieldReader& fields) {
  const std::string user = Text(fields, Field::kUser);
  const std::string given = Text(fields, Field::kGivenUser);
  const std::string from = Text(fields, Field::kFrom);
  const std::string name = user.empty() ? given : user;
  return (name.empty() ? "somebody" : name) + (from.empty() ? "" : "@" + from) +
         (given.empty() || given == name ? "" : " (as " + given + ")");
}

std::string By(const FieldReader& fields) {
  const bool is_known = fields.Has(Field::kUser) || fields.Has(Field::kGivenUser);
  return is_known ? " by " + Who(fields) : "";
}

std::string Because(const FieldReader& fields) {
  const std::string reason = Text(fields, Field::kReason);
  return reason.empty() ? "" : ": " + reason;
}

std::string Mode(const FieldReader& fields, Field field) {
  const std::string mode = Text(fields, field);
  return mode.empty() ? "" : ModeInFull(mode);
}

// " (shared)"
std::string InMode(const FieldReader& fields) {
  const std::string mode = Mode(fields, Field::kMode);
  return mode.empty() ? "" : " (" + mode + ")";
}

// " from 2026-11-22 03:10:00.000 to 2026-11-22 03:12:00.000"
std::string Period(const FieldReader& fields) {
  const auto begin = fields.Number(Field::kBegin);
  const auto end = fields.Number(Field::kEnd);
  return (begin ? " from " + StampText(*begin) : "") + (end ? " to " + StampText(*end) : "");
}

// The last bytes that somebody typed are shown where they were asked for.
std::string Typed(const FieldReader& fields) {
  const std::string text = Text(fields, Field::kText);
  return Who(fields) + " typed " + Counted(fields, Field::kBytes, "byte") +
         (text.empty() ? "" : ": " + text);
}

std::string ChangedMode(const FieldReader& fields) {
  const std::string before = Mode(fields, Field::kPreviousMode);
  return Who(fields) + " changed the mode" + (before.empty() ? "" : " from " + before) + " to " +
         Mode(fields, Field::kMode);
}

std::string Breaks(const FieldReader& fields) {
  const int64_t count = fields.Number(Field::kCount).value_or(1);
  return (count == 1 ? "a break was" : Number(fields, Field::kCount) + " breaks were") + " sent" +
         By(fields);
}

std::string Missing(const FieldReader& fields) {
  const auto bytes = fields.Number(Field::kBytes);
  return "gap: " + Counted(fields, Field::kCount, "record") +
         (bytes ? " (" + Counted(fields, Field::kBytes, "byte") + ")" : "") + " could not be kept" +
         Period(fields) + Because(fields);
}

std::string NotLogged(const FieldReader& fields) {
  const auto bytes = fields.Number(Field::kBytes);
  return "not logged" + Period(fields) + By(fields) +
         (bytes ? ", " + Counted(fields, Field::kBytes, "byte") : "") + Because(fields);
}

std::string ClockStep(const FieldReader& fields) {
  const int64_t before = fields.Number(Field::kBegin).value_or(0);
  const int64_t after = fields.Number(Field::kEnd).value_or(0);
  return "the clock was set " + std::string(after < before ? "back" : "forward") + " by " +
         DurationText(after < before ? before - after : after - before) + ", from " +
         StampText(before) + " to " + StampText(after);
}

std::string Place(const FieldReader& fields) {
  return Text(fields, Field::kName) + " (" + Text(fields, Field::kAddress) + " port " +
         Number(fields, Field::kPort) + ")";
}

std::string Event(const FieldReader& fields) {
  return "event: pattern " + Text(fields, Field::kPattern) + ", priority " +
         Number(fields, Field::kPriority) + ": " + Text(fields, Field::kText);
}

std::string Act(const FieldReader& fields) {
  const std::string object = Text(fields, Field::kConsole);
  const std::string result = Text(fields, Field::kResult);
  return Who(fields) + ": " + Text(fields, Field::kWhat) + (object.empty() ? "" : " " + object) +
         InMode(fields) + (result.empty() ? "" : ", " + result) + Because(fields);
}

std::string Started(const FieldReader& fields) {
  return "the daemon started (version " + Text(fields, Field::kVersion) + ", process " +
         Number(fields, Field::kPid) + ")";
}

std::string Torn(const FieldReader& fields) {
  return "the end of segment " + Number(fields, Field::kSegment) +
         " was torn, and what is torn was cut off: " + Counted(fields, Field::kBytes, "byte");
}

struct Words {
  Kind kind;
  std::string (*text)(const FieldReader& fields);
};

using Fields = const FieldReader&;

constexpr std::array kWords = {
    Words{Kind::kConsole, [](Fields f) { return "this console is " + Place(f); }},
    Words{Kind::kConsoleGone,
          [](Fields f) { return "console " + Text(f, Field::kName) + " was deleted"; }},
    Words{Kind::kInput, Typed},
    Words{Kind::kAttached, [](Fields f) { return Who(f) + " attached" + InMode(f); }},
    Words{Kind::kLeft, [](Fields f) { return Who(f) + " left" + InMode(f) + Because(f); }},
    Words{Kind::kMode, ChangedMode},
    Words{Kind::kConnected, [](Fields) { return std::string("connected"); }},
    Words{Kind::kLost, [](Fields f) { return "the connection was lost" + Because(f); }},
    Words{Kind::kDisabled, [](Fields f) { return "disabled" + By(f); }},
    Words{Kind::kEnabled, [](Fields f) { return "enabled" + By(f); }},
    Words{Kind::kMessage,
          [](Fields f) { return "message" + By(f) + ": " + Text(f, Field::kText); }},
    Words{Kind::kBreak, Breaks},
    Words{Kind::kEvent, Event},
    Words{Kind::kPaused, [](Fields f) { return "not logged from here on" + By(f) + Because(f); }},
    Words{Kind::kNotLogged, NotLogged},
    Words{Kind::kGap, Missing},
    Words{Kind::kClockStep, ClockStep},
    Words{Kind::kStarted, Started},
    Words{Kind::kStopped, [](Fields) { return std::string("the daemon stopped"); }},
    Words{Kind::kAudit, Act},
    Words{Kind::kTorn, Torn},
};

// ---- JSON ---------------------------------------------------------------------------------------

enum class Form { kText, kNumber, kTime };

struct Member {
  Field field;
  const char* name;
  Form form;
};

constexpr std::array kMembers = {
    Member{Field::kName, "name", Form::kText},
    Member{Field::kAddress, "address", Form::kText},
    Member{Field::kPort, "port", Form::kNumber},
    Member{Field::kUser, "user", Form::kText},
    Member{Field::kGivenUser, "given_user", Form::kText},
    Member{Field::kFrom, "from", Form::kText},
    Member{Field::kGivenFrom, "given_from", Form::kText},
    Member{Field::kMode, "mode", Form::kText},
    Member{Field::kPreviousMode, "previous_mode", Form::kText},
    Member{Field::kReason, "reason", Form::kText},
    Member{Field::kPattern, "pattern", Form::kText},
    Member{Field::kPriority, "priority", Form::kNumber},
    Member{Field::kText, "message", Form::kText},
    Member{Field::kBegin, "begin", Form::kTime},
    Member{Field::kEnd, "end", Form::kTime},
    Member{Field::kCount, "count", Form::kNumber},
    Member{Field::kBytes, "bytes", Form::kNumber},
    Member{Field::kWhat, "what", Form::kText},
    Member{Field::kResult, "result", Form::kText},
    Member{Field::kConsole, "object", Form::kText},
    Member{Field::kSegment, "segment", Form::kNumber},
    Member{Field::kVersion, "version", Form::kText},
    Member{Field::kPid, "pid", Form::kNumber},
};

}  // namespace

std::string StampText(int64_t wall) {
  const Moment moment = Split(wall);
  tm fields{};
  localtime_r(&moment.seconds, &fields);
  return Formatted("%Y-%m-%d %H:%M:%S", fields) + Digits(moment.nanoseconds / 1'000'000, 3);
}

std::string StampJson(int64_t wall) {
  const Moment moment = Split(wall);
  tm fields{};
  gmtime_r(&moment.seconds, &fields);
  return Formatted("%Y-%m-%dT%H:%M:%S", fields) + Digits(moment.nanoseconds, 9) + "Z";
}

std::string DurationText(int64_t nanoseconds) {
  struct Unit {
    int64_t seconds;
    const char* name;
  };
  constexpr std::array kUnits = {Unit{86400, "day"}, Unit{3600, "hour"}, Unit{60, "minute"},
                                 Unit{1, "second"}};
  const int64_t seconds = nanoseconds / kNanosecond;
  const auto* unit = std::find_if(kUnits.begin(), kUnits.end() - 1, [&](const Unit& candidate) {
    return seconds >= candidate.seconds;
  });
  const auto amount = [](int64_t part, const Unit& of) {
    return CountText(static_cast<uint64_t>(part / of.seconds), of.name);
  };
  const std::string text = amount(seconds, *unit);
  const int64_t rest = seconds % unit->seconds;
  const auto* next = unit + 1;
  return next == kUnits.end() || rest < next->seconds ? text : text + " " + amount(rest, *next);
}

std::string RecordText(const journal::Record& record) {
  const auto* words = std::find_if(kWords.begin(), kWords.end(), [&](const Words& candidate) {
    return candidate.kind == record.header.kind;
  });
  if (words != kWords.end()) return words->text(FieldReader(record.payload));
  return std::string("a record of an unknown kind: ") +
         std::to_string(static_cast<int>(record.header.kind));
}

void AddFields(const journal::Record& record, nlohmann::ordered_json* data) {
  const FieldReader fields(record.payload);
  for (const Member& member : kMembers) {
    if (!fields.Has(member.field)) continue;
    const int64_t number = fields.Number(member.field).value_or(0);
    if (member.form == Form::kText) (*data)[member.name] = Utf8(fields.Text(member.field));
    if (member.form == Form::kNumber) (*data)[member.name] = number;
    if (member.form == Form::kTime) (*data)[member.name] = StampJson(number);
  }
}

}  // namespace zevctl
