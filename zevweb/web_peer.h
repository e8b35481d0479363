// A connection that goes on, as its channel sees it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "exchange.h"

struct lws;

namespace zevweb {

/// Made on the server's thread, which calls everything but WantToWrite().
class WebPeer : public Peer, public std::enable_shared_from_this<WebPeer> {
 public:
  WebPeer(lws* connection, bool is_websocket, Workers& workers);

  void WantToWrite() override;
  void Write(std::string_view bytes, bool is_text) override;
  void Close(uint16_t status, std::string_view reason) override;

  /// Bytes can be written from now on.
  void Open();

  /// The connection has gone.
  void Forget() { connection_ = nullptr; }

  bool is_closing() const { return is_closing_; }

  /// Whether a write has failed, so that the connection must end.
  bool is_broken() const { return is_broken_; }

 private:
  lws* connection_;
  const bool is_websocket_;
  Workers& workers_;
  const std::thread::id server_;
  bool is_open_ = false;
  bool is_wanted_ = false;
  bool is_closing_ = false;
  bool is_broken_ = false;
};

/// Writes the bytes as the library wants them; false when the connection has failed.
bool WriteTo(lws* connection, std::string_view bytes, int protocol);

}  // namespace zevweb
