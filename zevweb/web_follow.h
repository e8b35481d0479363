// One viewer's place in what the journal has of a console: from the past over the tail that all
// viewers share to what comes. Belongs to the server's thread.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "exchange.h"
#include "web_reader.h"
#include "web_tail.h"

namespace zevweb {

/// Where a viewer begins.
struct WebStart {
  size_t last = 0;                        ///< so many lines before the end
  std::optional<journal::Position> from;  ///< or behind this position
  uint64_t skip = 0;                      ///< with so many bytes of output left out
};

class WebFollow {
 public:
  /// `tail`, `reader` and `workers` must live longer; `came` is called when there may be more.
  WebFollow(const WebTail& tail, std::string name, const WebStart& start, WebReader& reader,
            Workers& workers, std::function<void()> came);

  /// To be called when the console has changed.
  void Restart();

  /// The next frame's record, which may be one that tells what is missing; null when there is none
  /// just now.
  WebRecordPointer Peek();
  void Advance();

  /// True once everything from before the connection has been shown.
  bool is_live() const { return phase_ == Phase::kLive; }

  /// What could not be shown since the last call, as text frames.
  std::deque<std::string> TakeRemarks();

  const journal::Position& position() const { return next_; }

 private:
  enum class Phase { kUnknown, kPast, kLive };
  struct Window;

  void Ask();
  void Take(Window window);
  void GoLive();
  WebRecordPointer PeekPast();
  WebRecordPointer PeekLive();
  void SetMissed();
  WebRecordPointer Skipped(const WebRecordPointer& record);

  const WebTail& tail_;
  const std::string name_;
  WebStart start_;
  WebReader& reader_;
  Workers& workers_;
  const std::function<void()> came_;
  std::shared_ptr<char> alive_ = std::make_shared<char>();

  Phase phase_ = Phase::kUnknown;
  uint64_t joins_ = 0;
  bool is_asked_ = false;
  bool has_begun_ = false;    // next_ is a place
  bool was_unknown_ = false;  // the journal had nothing of the console
  journal::Position next_;
  std::deque<WebRecordPointer> window_;
  std::deque<std::string> remarks_;
  journal::Position after_;  // where the window ends
  uint64_t number_ = 0;      // of the next entry of the tail
  uint64_t seen_ = 0;        // bytes of output in all before it

  // What Peek() has given, and what Advance() makes of the place.
  WebRecordPointer current_;
  uint64_t number_then_ = 0;
  uint64_t seen_then_ = 0;
};

}  // namespace zevweb
