#include "session_talk.h"

#include <algorithm>
#include <array>
#include <ctime>

#include "console_words.h"
#include "moment.h"
#include "output.h"

namespace zevctl {

namespace {

constexpr Milliseconds kQuiet{150};           // the replay is over
constexpr Milliseconds kLongestReplay{1000};  // of a console that never stops printing
constexpr Milliseconds kLongestLook{3000};

struct ModeKey {
  char key;
  std::string_view mode;
};

constexpr std::array kModeKeys = {ModeKey{'r', "ro"}, ModeKey{'s', "sh"}, ModeKey{'x', "ex"},
                                  ModeKey{'e', "er"}};

constexpr char kModeHelp[] =
    "Press r for read-only, s for shared, x for exclusive, e for exclusive until the next user "
    "comes; any other key changes nothing.";

std::optional<Clock::time_point> Earlier(std::optional<Clock::time_point> one,
                                         std::optional<Clock::time_point> other) {
  if (!one || !other) return one ? one : other;
  return std::min(*one, *other);
}

bool OnlyRevocable(const std::vector<Attendee>& users) {
  return std::all_of(users.begin(), users.end(),
                     [](const Attendee& user) { return user.mode == "exclusive-revoke"; });
}

}  // namespace

SessionTalk::SessionTalk(const SessionOptions& options, Notes& notes, const Settings& settings,
                         Credentials& credentials)
    : options_(options),
      notes_(notes),
      company_(settings, credentials, options.console, ModeInFull(options.mode)) {}

void SessionTalk::Read() {
  if (!company_.Read()) return;
  if (wanted_ != EscapeAction::kNone) Tell(std::exchange(wanted_, EscapeAction::kNone));
  TellNews();
}

std::optional<Clock::time_point> SessionTalk::Due() const {
  auto due = Earlier(notes_.Due(), company_.Due());
  if (!greeted_) due = Earlier(due, std::min(active_ + kQuiet, attached_ + kLongestReplay));
  if (wanted_ != EscapeAction::kNone) due = Earlier(due, wanted_until_);
  return due;
}

void SessionTalk::Pass() {
  const auto now = Clock::now();
  if (!greeted_ && MayGreet(now)) Greet();
  const auto look = company_.Due();
  if (look && now >= *look) company_.Look();
  const bool in_vain = company_.closed() || now >= wanted_until_;
  if (wanted_ != EscapeAction::kNone && in_vain) {
    wanted_ = EscapeAction::kNone;
    notes_.Say("The daemon does not tell who is here; \"zevctl who " + options_.console +
               "\" asks it again.");
  }
  notes_.Flush();
}

void SessionTalk::Follow(std::string_view text) {
  active_ = Clock::now();
  recent_.Add(text);
  notes_.Follow(text);
}

void SessionTalk::Act(EscapeAction action) {
  switch (action) {
    case EscapeAction::kHelp:
      return notes_.Say(EscapeHelp(*options_.escape, options_.over_ssh));
    case EscapeAction::kRecent:
      return ShowRecent();
    case EscapeAction::kMode:
      return AskMode();
    case EscapeAction::kWho:
    case EscapeAction::kTakeOver:
      return Want(action);
    default:
      break;
  }
}

std::optional<SessionChange> SessionTalk::Answer(char key) {
  return std::exchange(question_, Question::kNone) == Question::kMode ? ChangeMode(key)
                                                                      : TakeOver(key);
}

void SessionTalk::TypedInVain() {
  if (std::exchange(told_in_vain_, true)) return;
  notes_.Say("What you type is not sent: you are only watching. " +
             (options_.escape ? EscapeName(*options_.escape, options_.over_ssh) +
                                    "m at the start of a line changes the mode."
                              : "Attach with another --mode to type."));
}

// ---- The greeting, and who comes and goes -------------------------------------------------------

// The replay of what the console printed before comes at once, and the greeting stands below it.
bool SessionTalk::MayGreet(Clock::time_point now) const {
  if (now >= attached_ + kLongestReplay) return true;
  return now >= active_ + kQuiet && (company_.closed() || company_.status());
}

std::string SessionTalk::Greeting() const {
  std::string text = "Attached to " + options_.console + " (" + ModeInFull(options_.mode) +
                     (options_.mode == "ro" ? ", what you type is not sent)" : ")");
  const auto& status = company_.status();
  if (status && status->last_output != 0) {
    text += ", which last printed something " + Ago(status->last_output, time(nullptr));
  }
  if (!options_.escape) {
    return text + ". There is no escape: to leave, end zevctl from outside.";
  }
  const std::string name = EscapeName(*options_.escape, options_.over_ssh);
  return text + ". Type " + name + ". at the start of a line to leave, " + name + "? for help.";
}

void SessionTalk::Greet() {
  greeted_ = true;
  notes_.Say(Greeting());
  TellNews();
}

void SessionTalk::TellNews() {
  if (!greeted_ || !company_.status()) return;
  const time_t now = time(nullptr);
  if (!std::exchange(news_told_, true)) {
    const auto others = company_.Others();
    if (!others.empty()) notes_.Say("Also here: " + Described(others, now) + ".");
    return;
  }
  for (const Attendee& user : company_.joined()) {
    notes_.Say(Described(user, now) + " has joined.");
  }
  for (const Attendee& user : company_.left()) notes_.Say(NameOf(user) + " has left.");
}

// ---- What the escapes tell and ask --------------------------------------------------------------

void SessionTalk::Want(EscapeAction action) {
  wanted_ = action;
  wanted_until_ = Clock::now() + kLongestLook;
  company_.LookNow();
}

void SessionTalk::Tell(EscapeAction action) {
  if (action == EscapeAction::kWho) {
    TellWho();
  } else {
    AskTakeOver();
  }
}

void SessionTalk::TellWho() {
  const time_t now = time(nullptr);
  const auto others = company_.Others();
  std::string text = "At " + company_.console() + ": you (" + ModeInFull(options_.mode) + ")";
  for (const Attendee& user : others) text += "\n  " + Described(user, now);
  notes_.Say(others.empty() ? text + ", and nobody else." : text);
}

void SessionTalk::AskMode() {
  question_ = Question::kMode;
  notes_.Say("Your mode is " + ModeInFull(options_.mode) + ". " + kModeHelp);
}

// The daemon cuts a holder off who let it, when somebody else comes. Whoever else may type is cut
// off by clearing the console, which spares nobody.
void SessionTalk::AskTakeOver() {
  const auto others = company_.Others();
  std::vector<Attendee> typing;
  std::copy_if(others.begin(), others.end(), std::back_inserter(typing), MayType);
  if (typing.empty()) {
    return notes_.Say("Nobody else can type here, so there is nothing to take over; " +
                      EscapeName(*options_.escape, options_.over_ssh) + "m changes the mode.");
  }
  clears_ = !OnlyRevocable(typing);
  question_ = Question::kTakeOver;
  notes_.Say("Take " + company_.console() + " over? This cuts off " +
             Described(clears_ ? others : typing, time(nullptr)) +
             ". Press y to do it; any other key changes nothing.");
}

void SessionTalk::ShowRecent() {
  const std::string text = recent_.Text();
  if (text.empty()) {
    return notes_.Say("Nothing has been printed since you attached; \"zevctl log " +
                      options_.console + "\" shows what was before.");
  }
  notes_.Say("What was printed last:");
  notes_.Repeat(text);
  notes_.Say("That was printed before; what follows is new.");
}

std::optional<SessionChange> SessionTalk::ChangeMode(char key) {
  const auto* row = std::find_if(kModeKeys.begin(), kModeKeys.end(),
                                 [&](const ModeKey& known) { return known.key == key; });
  if (row == kModeKeys.end() || row->mode == options_.mode) {
    notes_.Say("The mode stays " + ModeInFull(options_.mode) + ".");
    return {};
  }
  return SessionChange{company_.console(), std::string(row->mode), false};
}

std::optional<SessionChange> SessionTalk::TakeOver(char key) {
  if (key == 'y' || key == 'Y') return SessionChange{company_.console(), "er", clears_};
  notes_.Say("Nobody was cut off.");
  return {};
}

}  // namespace zevctl
