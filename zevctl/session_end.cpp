#include "session_end.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <thread>

#include "console_status.h"
#include "output.h"
#include "quiet_port.h"

namespace zevctl {

namespace {

constexpr Milliseconds kLongestAnswer{3000};  // it waits while a console is being connected
constexpr Milliseconds kPause{200};
constexpr int kLooks = 5;  // until the daemon has noticed what ended the session

constexpr int kLocked = 6;

// ---- The daemon's last words --------------------------------------------------------------------

struct Words {
  std::string_view start;  // the rest is who did it
  Cause cause;
};

constexpr std::array kWords = {
    Words{"Your session has been terminated by ", Cause::kTerminated},
    Words{"Console has been disabled by ", Cause::kDisabledBy},
    Words{"Console has been disabled.", Cause::kDisabled},
    Words{"Console has been deleted.", Cause::kDeleted},
};

// The text of the last of the daemon's messages, which it frames by lines of stars.
std::string_view LastMessage(std::string_view received) {
  constexpr std::string_view kLine =
      "\r\n\r\n**************************************************************************"
      "****\r\n\r\n";
  const size_t end = received.rfind(kLine);
  if (end == std::string_view::npos) return {};
  const size_t start = received.substr(0, end).rfind(kLine);
  if (start == std::string_view::npos) return {};
  return received.substr(start + kLine.size(), end - start - kLine.size());
}

EndReason Told(Cause cause, const std::string& who, const std::string& console) {
  switch (cause) {
    case Cause::kTakenOver:
      return {who + " took the console over; \"zevctl who " + console + "\" tells who is there now",
              true};
    case Cause::kTerminated:
      return {who + " cleared the console, which cut you off; \"zevctl who " + console +
                  "\" tells who has it",
              true};
    case Cause::kDisabledBy:
      return {who + " disabled the console; \"zevctl enable " + console +
              "\" lets the daemon connect to it again"};
    case Cause::kDisabled:
      return {"the console was disabled by the station's configuration; \"zevctl enable " +
              console + "\" lets the daemon connect to it again"};
    case Cause::kDeleted:
      break;
  }
  return {
      "the console was taken out of the station's configuration; \"zevctl list\" shows those "
      "that are left"};
}

// ---- What the daemon tells afterwards -----------------------------------------------------------

EndReason ConsoleLost(const std::string& console) {
  return {
      "the console closed its connection, or that was lost; the daemon connects to it again, "
      "and \"zevctl attach --retry " +
      console + "\" waits for it"};
}

EndReason DaemonEnded() {
  return {"the daemon ended; attach again when it runs, --retry waits for it"};
}

EndReason DaemonSilent() {
  return {
      "the daemon closed the session and does not answer; attach again when it does, --retry "
      "waits for it"};
}

EndReason ConnectionLost(int error) {
  return {std::string("the connection to the daemon was lost: ") + strerror(error) +
          "; attach again, --retry does so by itself"};
}

// What is left when neither the console nor the daemon nor an operator did it.
EndReason CutOffAtConsole() {
  return {
      "the daemon ended the session while the console stayed connected, as it does when the "
      "console takes no input for some seconds; attach again"};
}

EndReason Unknown(const std::string& console) {
  return {
      "the daemon closed the session: the console's connection was lost, the console was "
      "disabled or deleted, or the daemon ended; \"zevctl list " +
      console + "\" tells its state, --retry waits for it"};
}

/// Looks at the console until its state tells why the session ended.
class Inquest {
 public:
  Inquest(const SessionResult& result, const SessionOptions& options, time_t begun,
          const Settings& settings, Credentials& credentials)
      : result_(result),
        options_(options),
        begun_(begun),
        settings_(settings),
        credentials_(credentials) {}

  EndReason Run() {
    const auto stats = AskStats();
    if (!port_->reached()) return DaemonEnded();
    if (!stats) return NoAnswer();
    const auto started = ParseStarted(*stats);
    if (started && *started > begun_) return DaemonEnded();
    for (int look = 0; look < kLooks; ++look) {
      if (look > 0) std::this_thread::sleep_for(kPause);
      const auto answer = port_->Ask("status " + options_.console, kLongestAnswer);
      if (!answer) return NoAnswer();
      const auto reason = FromStatus(*answer);
      if (reason) return *reason;
    }
    return result_.error != 0 ? ConnectionLost(result_.error) : CutOffAtConsole();
  }

 private:
  std::string Console() const { return Printable(options_.console); }

  // A daemon that is ending may close the session first and its listener last.
  std::optional<std::string> AskStats() {
    std::optional<std::string> stats;
    for (int look = 0; look < kLooks; ++look) {
      if (look > 0) std::this_thread::sleep_for(kPause);
      port_.emplace(settings_, credentials_);
      stats = port_->Ask("stats", kLongestAnswer);
      if (stats || port_->heard() || !port_->closed() || !port_->reached()) break;
    }
    return stats;
  }

  // The daemon may not tell this user anything.
  EndReason NoAnswer() const {
    if (result_.error != 0) return ConnectionLost(result_.error);
    return port_->heard() ? Unknown(Console()) : DaemonSilent();
  }

  // Nothing while the console looks as if nothing had happened to it.
  std::optional<EndReason> FromStatus(const std::string& answer) const {
    const auto status = ParseStatus(answer, options_.console);
    if (!status) {
      return answer.empty() ? std::optional(Told(Cause::kDeleted, "", Console())) : std::nullopt;
    }
    if (status->state == "disabled") return Told(Cause::kDisabled, "", Console());
    const bool connected = status->state == "connected" || status->state == "in-use";
    // Whole seconds: a console that came back at once may have done so in the first one.
    if (connected && status->since < begun_) return {};
    return ConsoleLost(Console());
  }

  const SessionResult& result_;
  const SessionOptions& options_;
  time_t begun_;
  const Settings& settings_;
  Credentials& credentials_;
  std::optional<QuietPort> port_;
};

// ---- Refusals -----------------------------------------------------------------------------------

std::string Advice(const Refusal& refusal, const std::string& console) {
  const std::string others = "\"zevctl msg " + console + " TEXT\" asks them, \"zevctl clear " +
                             console + "\" cuts everybody off.";
  return (refusal.number == kLocked ? "Watch it with --mode ro, or wait; "
                                    : "Ask for --mode sh, or wait; ") +
         others;
}

// Those at the console who may type; none where the daemon does not tell.
std::vector<Attendee> Typing(const std::string& console, const Settings& settings,
                             Credentials& credentials) {
  QuietPort port(settings, credentials);
  const auto answer = port.Ask("status " + console, kLongestAnswer);
  const auto status = answer ? ParseStatus(*answer, console) : std::nullopt;
  std::vector<Attendee> typing;
  if (!status) return typing;
  std::copy_if(status->users.begin(), status->users.end(), std::back_inserter(typing), MayType);
  return typing;
}

}  // namespace

LastWords ParseLastWords(std::string_view received) {
  const std::string_view message = LastMessage(received);
  const auto* row = std::find_if(kWords.begin(), kWords.end(), [&](const Words& words) {
    return message.starts_with(words.start);
  });
  if (row == kWords.end()) return {};
  return {row->cause, std::string(message.substr(row->start.size()))};
}

// Whoever takes a console over and whoever clears it are announced alike. But only one of them is
// there afterwards, and only a holder who let it can be cut off by another user.
EndReason ReasonOf(const SessionResult& result, const SessionOptions& options, time_t begun,
                   const Settings& settings, Credentials& credentials) {
  LastWords told = ParseLastWords(result.last);
  if (told.cause == Cause::kTerminated && options.mode == "er") {
    const auto typing = Typing(options.console, settings, credentials);
    const bool is_there = std::any_of(typing.begin(), typing.end(), [&](const Attendee& user) {
      return told.who.starts_with(user.name + "@");
    });
    if (is_there) told.cause = Cause::kTakenOver;
  }
  if (told.cause) return Told(*told.cause, told.who, Printable(options.console));
  return Inquest(result, options, begun, settings, credentials).Run();
}

std::string WithHolders(const Refusal& refusal, const SessionOptions& options,
                        const Settings& settings, Credentials& credentials) {
  const auto holders = Typing(options.console, settings, credentials);
  if (holders.empty()) return refusal.Message();
  return "refused: " + refusal.text + " Here: " + Described(holders, time(nullptr)) + ". " +
         Advice(refusal, Printable(options.console));
}

}  // namespace zevctl
