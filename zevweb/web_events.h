// The stream of the station's events. Belongs to the server's thread.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "exchange.h"
#include "web_tail.h"

namespace zevweb {

class WebEvents : public Channel, private WebListener {
 public:
  /// `from`: behind this position; without it, from now on.
  WebEvents(WebReader& reader, WebTails& tails, Workers& workers,
            std::optional<journal::Position> from, std::shared_ptr<Peer> peer);
  ~WebEvents() override;
  WebEvents(const WebEvents&) = delete;
  WebEvents& operator=(const WebEvents&) = delete;

  void Take(std::string_view /*frame*/, bool /*is_text*/) override {}
  void Writable() override;

 private:
  struct Past;

  void EventsCame(const std::vector<WebNews::Event>& events) override;
  void Add(const WebNews::Event& event);
  void Stand();
  void AwaitReader();
  void AskPast(const journal::Position& from);

  WebReader& reader_;
  WebTails& tails_;
  Workers& workers_;
  const std::shared_ptr<Peer> peer_;
  std::shared_ptr<char> alive_ = std::make_shared<char>();
  std::deque<std::string> pieces_;
  size_t held_ = 0;       // bytes of them
  uint64_t missed_ = 0;   // events for which there was no room
  bool has_past_ = true;  // what came before is there
  journal::Position last_;
  std::vector<WebNews::Event> waiting_;  // until it is
};

}  // namespace zevweb
