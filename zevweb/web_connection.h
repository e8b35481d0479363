// One connection of a browser, a machine or a proxy, request after request.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <string_view>

#include "exchange.h"
#include "web_files.h"
#include "web_gate.h"
#include "web_head.h"
#include "web_peer.h"
#include "web_routes.h"
#include "web_workers.h"

namespace zevweb {

/// What all connections share.
struct WebShop {
  const WebOptions& options;
  WorkerPool& workers;
  WebGate& gate;
  const WebRoutes& routes;
  const WebFiles& files;
};

/// The server's thread calls everything. A function that answers false has the connection end.
class WebConnection {
 public:
  WebConnection(lws* connection, const WebShop& shop) : connection_(connection), shop_(shop) {}
  ~WebConnection();
  WebConnection(const WebConnection&) = delete;
  WebConnection& operator=(const WebConnection&) = delete;

  // What the library tells of HTTP.

  bool BeginRequest();
  bool TakeBody(std::string_view bytes);
  bool EndBody();
  bool WriteAnswer();

  // What it tells of WebSockets.

  bool Upgrade();
  void Open();
  bool TakeFrame(std::string_view bytes, bool is_first, bool is_last, bool is_text);
  bool WriteFrame();

  bool HasChannel() const { return channel_ != nullptr; }
  const WebHead& channel_head() const { return channel_head_; }
  std::shared_ptr<WebPeer> peer() const { return peer_; }

  /// Whether an answer is on its way.
  bool IsBusy() const { return exchange_ != nullptr; }

 private:
  struct Exchange;

  bool ServeFile();
  bool Dispatch();
  void Ask(const std::shared_ptr<Exchange>& exchange);
  static void Judge(const WebShop& shop, Exchange& exchange);
  void BeginChannel(const ChannelRoute& route);
  /// `lasting` follows the body, and is there as long as the server.
  void Answer(Response response, std::string_view lasting = {});
  bool Refuse(int status, const std::string& text);
  void PullMore();
  bool FinishAnswer();

  lws* connection_;
  const WebShop& shop_;
  std::shared_ptr<Exchange> exchange_;
  std::shared_ptr<WebPeer> peer_;
  std::unique_ptr<Channel> channel_;
  WebHead channel_head_;
  std::string frame_;
};

}  // namespace zevweb
