#include "web_typing.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "command_port.h"
#include "login.h"
#include "output.h"

namespace zevweb {

namespace {

using journal::Kind;
using zevctl::Json;

constexpr std::chrono::milliseconds kJournalLag{1500};  // the daemon lets records wait for 100 ms
constexpr std::chrono::milliseconds kFirstBytes{40};    // what the daemon repeats comes at once
constexpr std::chrono::milliseconds kSeamLimit{500};
constexpr std::chrono::milliseconds kEndLag{300};
constexpr size_t kMostSought = 64 << 10;
constexpr size_t kMostInFrame = 32 << 10;

int64_t WallTime() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

// In the words of whoever sits at a page.
std::string ProblemOf(const zevctl::Failure& failure) {
  switch (failure.status()) {
    case zevctl::ExitStatus::kNoDaemon:
      return "the daemon cannot be reached, or does not answer; try again when it runs";
    case zevctl::ExitStatus::kNotAdmitted:
      return "the daemon does not admit the web server, which cannot read the daemon's cookie; "
             "tell the station's administrator";
    case zevctl::ExitStatus::kNotTheDaemon:
      return "somebody else listens on the daemon's port; tell the station's administrator";
    default:
      return failure.what();
  }
}

}  // namespace

/// What a worker has made of the wish to attach.
struct WebTyping::Outcome {
  std::optional<zevctl::Opening> opening;
  int number = 0;
  std::string problem;
};

WebTyping::WebTyping(const WebParts& parts, const Caller& caller, std::string console,
                     std::function<void(std::string)> tell, std::function<void()> wake)
    : parts_(parts),
      caller_(caller),
      console_(std::move(console)),
      tell_(std::move(tell)),
      wake_(std::move(wake)),
      settings_(parts.station) {
  settings_.user = caller.name;
  settings_.from = caller.address;
  settings_.user = zevctl::UserName(settings_);
}

WebTyping::~WebTyping() {
  if (attach_) attach_->Leave();
}

void WebTyping::Take(const StreamRequest& request) {
  if (caller_.proof == Proof::kToken) {
    tell_(TextFrame("problem", {{"text", "a token watches only; log in with name and password"}}));
    return;
  }
  switch (request.what) {
    case StreamRequest::What::kAttach:
      if (stage_ == Stage::kNone) return Attach(request.mode, request.take);
      following_ = request;
      return Leave();
    case StreamRequest::What::kLeave:
      following_.reset();
      return Leave();
    case StreamRequest::What::kBreak:
      if (attach_ && mode_ > 1) return attach_->SendBreak();
      tell_(TextFrame("problem", {{"text", attach_ ? "no break was sent: you are only watching"
                                                   : "no break was sent: attach first"}}));
  }
}

void WebTyping::Type(std::string_view typed) {
  const char* problem = nullptr;
  if (!attach_) {
    problem = "you are not attached; attach first";
  } else if (mode_ == 1) {
    problem = "you are only watching; attach in another mode";
  } else if (!attach_->Send(typed)) {
    problem = "the console takes nothing; wait until it does";
  }
  if (problem == nullptr) return;
  tell_(TextFrame("not-sent", {{"bytes", typed.size()}, {"text", problem}}));
}

// ---- Attaching ----------------------------------------------------------------------------------

void WebTyping::SetStage(Stage stage) {
  stage_ = stage;
  since_ = Clock::now();
  wake_();
}

bool WebTyping::HasPassed(std::chrono::milliseconds time) const {
  return Clock::now() - since_ >= time;
}

void WebTyping::Attach(int mode, bool take) {
  mode_ = mode;
  has_asked_to_leave_ = false;
  attached_at_.reset();
  shown_to_.reset();
  begun_ = WallTime();
  tell_(TextFrame("attaching", {{"mode", mode}}));
  SetStage(Stage::kOpening);
  const auto outcome = std::make_shared<Outcome>();
  const std::string line =
      console_ + " mode=" + ModeWord(mode) + " " + zevctl::Introduction(settings_);
  const auto open = [outcome, line, take, console = console_, settings = settings_] {
    try {
      zevctl::Credentials credentials = zevctl::Credentials::Unasked();
      if (take) zevctl::CommandPort(settings, credentials).Do("clear " + console);
      outcome->opening = zevctl::OpenMainPort(settings, credentials, line);
    } catch (const zevctl::Refused& refused) {
      outcome->number = refused.number();
      outcome->problem = refused.refusal().text;
    } catch (const zevctl::Failure& failure) {
      outcome->problem = ProblemOf(failure);
    }
  };
  try {
    parts_.workers.Run(open, [this, alive = std::weak_ptr(alive_), outcome] {
      if (!alive.expired()) Opened(outcome);
    });
  } catch (const Problem& problem) {
    Refuse(0, problem.what());
  }
}

void WebTyping::Refuse(int number, const std::string& text) {
  tell_(TextFrame("refused", {{"number", number == 0 ? Json() : Json(number)},
                              {"text", zevctl::Utf8(zevctl::Printable(text))}}));
  following_.reset();
  SetStage(Stage::kNone);
}

void WebTyping::Opened(const std::shared_ptr<Outcome>& outcome) {
  if (!outcome->opening) return Refuse(outcome->number, outcome->problem);
  const auto came = [this, alive = std::weak_ptr(alive_), &workers = parts_.workers] {
    workers.OnServer([this, alive] {
      if (!alive.expired()) wake_();
    });
  };
  attach_ = parts_.attaches.Add(std::move(*outcome->opening), came);
  SetStage(Stage::kOpened);
  if (has_asked_to_leave_) attach_->Leave();
}

void WebTyping::Leave() {
  has_asked_to_leave_ = stage_ != Stage::kNone;
  if (attach_) attach_->Leave();
}

bool WebTyping::IsOwn(const WebRecord& record) const {
  const bool is_place = settings_.from.empty() || record.from == settings_.from;
  return record.user == settings_.user && is_place && record.wall >= begun_;
}

WebTyping::Verdict WebTyping::Judge(const WebRecord& record) {
  if (stage_ == Stage::kNone) return Verdict::kShow;
  if (stage_ == Stage::kSeam) return Verdict::kHold;
  const bool is_on = stage_ == Stage::kOn || stage_ == Stage::kAfter;
  if (record.is_output()) return is_on ? Verdict::kSkip : Verdict::kShow;
  if (!IsOwn(record)) return Verdict::kShow;
  if (record.kind == Kind::kAttached && record.mode == ModeWord(mode_) && !is_on) {
    if (stage_ == Stage::kOpening) return Verdict::kHold;
    attached_at_ = shown_to_ = record.next;
    SetStage(Stage::kSeam);
    return Verdict::kShow;
  }
  if (record.kind != Kind::kLeft || !is_on) return Verdict::kShow;
  if (attach_->IsOver()) {
    Finish(record.reason);
    return Verdict::kShow;
  }
  // It may tell of another session of the same person.
  if (!held_since_) held_since_ = Clock::now();
  if (Clock::now() - *held_since_ < kEndLag || has_asked_to_leave_) return Verdict::kHold;
  held_since_.reset();
  return Verdict::kShow;
}

std::string WebTyping::NextOutput() {
  if (stage_ != Stage::kOn) return "";
  const std::string text = attach_->Take(kMostInFrame);
  if (!text.empty()) return OutputFrame(OutputKind::kAttached, {}, WallTime(), text);
  NoteEnd();
  return "";
}

void WebTyping::NoteEnd() {
  if (stage_ == Stage::kOn && attach_->IsOver()) SetStage(Stage::kAfter);
}

// ---- The seam -----------------------------------------------------------------------------------

// Where the journal tells nothing, the attachment's output is shown as it came.
void WebTyping::Tick(const std::optional<journal::Position>& place) {
  switch (stage_) {
    case Stage::kNone:
    case Stage::kOpening:
      return;
    case Stage::kOpened:
      if (place && !HasPassed(kJournalLag)) return;
      shown_to_ = place;
      SetStage(Stage::kSeam);
      return;
    case Stage::kSeam:
      if (!shown_to_) return Begin(0);
      if (HasPassed(kFirstBytes)) AskSeam();
      return;
    case Stage::kOn:
      NoteEnd();
      if (held_since_) wake_();
      return;
    case Stage::kAfter:
      if (!place || HasPassed(kJournalLag)) Finish("");
  }
}

void WebTyping::AskSeam() {
  if (is_asked_) return;
  is_asked_ = true;
  if (received_.empty()) received_ = attach_->Front(kMostSought);
  parts_.reader.Run(console_, [this, alive = std::weak_ptr(alive_), &workers = parts_.workers,
                               place = *shown_to_, received = received_](
                                  const journal::Journal* journal, std::optional<size_t> console) {
    WebSeam seam;
    try {
      if (journal != nullptr && console) seam = FindSeam(*journal, *console, place, received);
    } catch (const journal::JournalError&) {  // then nothing is taken for repeated
      seam.exact = 0;
    }
    workers.OnServer([this, alive, seam] {
      if (!alive.expired()) TakeSeam(seam);
    });
  });
}

void WebTyping::TakeSeam(const WebSeam& seam) {
  is_asked_ = false;
  if (stage_ != Stage::kSeam) return;
  if (seam.exact) return Begin(*seam.exact);
  if (HasPassed(kSeamLimit)) Begin(seam.probable);
}

void WebTyping::Begin(size_t repeated) {
  attach_->Take(repeated);
  received_.clear();
  tell_(TextFrame(
      "attached",
      {{"mode", mode_},
       {"position", attached_at_ ? Json(journal::PositionText(*attached_at_)) : Json()}}));
  SetStage(Stage::kOn);
}

void WebTyping::Finish(const std::string& reason) {
  std::string words = attach_->LastWords();
  if (words.empty()) words = reason.empty() ? "the daemon ended the session" : reason;
  tell_(TextFrame(
      "left",
      {{"reason", has_asked_to_leave_ ? Json() : Json(zevctl::Utf8(zevctl::Printable(words)))}}));
  attach_.reset();
  held_since_.reset();
  SetStage(Stage::kNone);
  const auto following = std::exchange(following_, {});
  if (following) Attach(following->mode, following->take);
}

}  // namespace zevweb
