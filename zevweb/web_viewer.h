// The WebSocket of one console: everything that docs/web.md says of it. Belongs to the server's
// thread.
#pragma once

#include <deque>
#include <memory>
#include <string>

#include "exchange.h"
#include "web_follow.h"
#include "web_tail.h"
#include "web_typing.h"

namespace zevweb {

class WebViewer : public Channel, private WebWatcher {
 public:
  /// `console`: its name as it was asked for.
  WebViewer(const WebParts& parts, WebTails& tails, const Caller& caller,
            const std::string& console, const WebStart& start, std::shared_ptr<Peer> peer);
  ~WebViewer() override;
  WebViewer(const WebViewer&) = delete;
  WebViewer& operator=(const WebViewer&) = delete;

  void Take(std::string_view frame, bool is_text) override;
  void Writable() override;

 private:
  void ConsoleChanged() override;
  void RecordsCame() override { peer_->WantToWrite(); }
  void Tick() override;

  void Tell(std::string frame);
  void Wake();
  bool WriteText();
  bool WriteOutput();
  bool WriteRecord();

  WebTails& tails_;
  const std::string console_;
  const std::shared_ptr<Peer> peer_;
  const WebTail& tail_;
  std::deque<std::string> texts_;  // to be sent before anything else
  std::string told_;               // the start as it was told last
  WebFollow follow_;
  WebTyping typing_;
  bool is_records_turn_ = false;
  bool is_closing_ = false;
};

/// Where the request wants to begin. Throws Problem.
WebStart ReadStart(const Request& request);

/// The console's name, if it can be one. Throws Problem.
std::string ReadConsoleName(const Request& request);

}  // namespace zevweb
