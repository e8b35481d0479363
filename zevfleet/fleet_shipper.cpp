#include "fleet_shipper.h"

#include <algorithm>
#include <utility>

#include "exit_status.h"
#include "fleet_clock.h"
#include "fleet_program.h"

namespace zevfleet {

namespace {

using Kind = Setback::Kind;

constexpr int64_t kFirstPause = 100 * kMillisecond;
constexpr int64_t kLongestPause = 5 * kSecond;
constexpr int64_t kNap = 50 * kMillisecond;

// A stream that is found changed is in order: it is asked again. Only when that does not help there
// is something to tell.
constexpr int kQuietFailures = 5;

int64_t PauseAfter(int failures) {
  const int doublings = std::min(failures, 10) - 1;
  return std::min(kFirstPause << doublings, kLongestPause);
}

std::string InWords(const Setback& setback) {
  std::string reason = setback.what();
  switch (setback.kind()) {
    case Kind::kJournal:
      return reason;
    case Kind::kAway:
      return "cannot reach NATS: " + reason;
    case Kind::kRefused:
      return "NATS does not take the messages: " + reason;
    case Kind::kMoved:
      return "begins anew again and again: " + reason;
  }
  return reason;
}

}  // namespace

Shipper::Shipper(const FleetOptions& options, const std::string& journal, bool once,
                 std::function<bool()> is_over)
    : options_(options),
      journal_(journal),
      once_(once),
      is_over_(std::move(is_over)),
      file_(options.state_directory) {}

void Shipper::TellOnce(const std::string& text) {
  if (text == told_) return;
  told_ = text;
  Tell(text);
}

void Shipper::Recovered() {
  failures_ = 0;
  TellOnce("ships to the stream " + StreamName({options_.site, options_.station}));
}

void Shipper::Complain(const std::string& text) {
  if (text == complaint_) return;
  complaint_ = text;
  Tell(text);
}

void Shipper::OpenSource() try {
  if (!source_) source_ = std::make_unique<ShipSource>(journal_);
  source_->Refresh();
} catch (const journal::JournalError& error) {
  source_.reset();
  const bool is_missing = error.cause() == journal::JournalError::Cause::kMissing;
  throw Setback(Kind::kJournal, is_missing
                                    ? "there is no journal in " + journal_ + " yet"
                                    : "cannot read the journal: " + std::string(error.what()));
}

// Returns when the work is done.
void Shipper::Try() {
  OpenSource();
  ShipWork work{.options = options_,
                .file = file_,
                .source = *source_,
                .is_over = is_over_,
                .be_well = [this] { Recovered(); },
                .complain = [this](const std::string& text) { Complain(text); },
                .once = once_,
                .labelled = labelled_};
  const auto take_over = [&] {
    labelled_ = work.labelled;
    messages_ += work.messages;
  };
  try {
    ShipSession(work).Run();
  } catch (const journal::JournalError& error) {
    take_over();
    source_.reset();
    throw Setback(Kind::kMoved, error.what());
  } catch (const Setback&) {
    take_over();
    throw;
  }
  take_over();
}

void Shipper::TakeSetback(const Setback& setback) {
  const std::string text = InWords(setback);
  ++failures_;
  const bool is_quiet = setback.kind() == Kind::kMoved && failures_ <= kQuietFailures;
  if (once_ && !is_quiet) throw zevctl::Failure(zevctl::ExitStatus::kFailed, text);
  if (!is_quiet) TellOnce(text);
  Pause();
}

void Shipper::Pause() const {
  const int64_t end = BootNow() + PauseAfter(failures_);
  while (!is_over_() && BootNow() < end) SleepUntil(std::min(end, BootNow() + kNap));
}

uint64_t Shipper::Run() {
  while (!is_over_()) {
    try {
      Try();
      break;
    } catch (const Setback& setback) {
      if (is_over_()) break;
      TakeSetback(setback);
    }
  }
  return messages_;
}

}  // namespace zevfleet
