// A viewer who attaches: what is sent to the console, and which of the journal's records the
// attachment has shown already. Belongs to the server's thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "exchange.h"
#include "settings.h"
#include "web_attach.h"
#include "web_frames.h"
#include "web_reader.h"
#include "web_record.h"
#include "web_seam.h"

namespace zevweb {

/// What all viewers share. It outlives them.
struct WebParts {
  zevctl::Settings station;
  WebReader& reader;
  WebAttaches& attaches;
  Workers& workers;
};

/// The journal's output is shown up to the record that tells of the user's coming, then that of the
/// attachment, then the journal's again from the record of the leaving on.
class WebTyping {
 public:
  /// `tell` sends a text frame; `wake` is called when there is something to do or to show.
  WebTyping(const WebParts& parts, const Caller& caller, std::string console,
            std::function<void(std::string)> tell, std::function<void()> wake);
  ~WebTyping();
  WebTyping(const WebTyping&) = delete;
  WebTyping& operator=(const WebTyping&) = delete;

  void Take(const StreamRequest& request);
  void Type(std::string_view typed);

  /// What to do with the journal's next record.
  enum class Verdict { kShow, kSkip, kHold };
  Verdict Judge(const WebRecord& record);

  /// The next frame of the attachment's output, or nothing.
  std::string NextOutput();

  /// Lets time pass. `place`: up to which the journal has been shown, when all of it has.
  void Tick(const std::optional<journal::Position>& place);

  /// Tick() has something to do.
  bool is_busy() const { return stage_ != Stage::kNone; }

 private:
  using Clock = std::chrono::steady_clock;

  enum class Stage {
    kNone,
    kOpening,  // a worker opens the connection
    kOpened,   // the journal's record of the coming is awaited
    kSeam,     // how much has been shown already is being found out
    kOn,
    kAfter,  // the journal's record of the leaving is awaited
  };
  struct Outcome;

  void Attach(int mode, bool take);
  void Opened(const std::shared_ptr<Outcome>& outcome);
  void Refuse(int number, const std::string& text);
  void Leave();
  void AskSeam();
  void TakeSeam(const WebSeam& seam);
  void Begin(size_t repeated);
  void NoteEnd();
  void Finish(const std::string& reason);
  void SetStage(Stage stage);
  bool HasPassed(std::chrono::milliseconds time) const;
  bool IsOwn(const WebRecord& record) const;

  const WebParts& parts_;
  const Caller caller_;
  const std::string console_;
  const std::function<void(std::string)> tell_;
  const std::function<void()> wake_;
  std::shared_ptr<char> alive_ = std::make_shared<char>();

  zevctl::Settings settings_;  // with the user's name and address
  Stage stage_ = Stage::kNone;
  Clock::time_point since_;  // the stage's beginning
  int mode_ = 0;
  int64_t begun_ = 0;                       // wall time
  std::optional<StreamRequest> following_;  // what to attach as next
  bool has_asked_to_leave_ = false;
  std::shared_ptr<WebAttach> attach_;
  std::optional<journal::Position> attached_at_;
  std::optional<journal::Position> shown_to_;
  std::string received_;  // the front of the output, of which the seam is sought
  bool is_asked_ = false;
  std::optional<Clock::time_point> held_since_;
};

}  // namespace zevweb
