#include "web_peer.h"

#include <libwebsockets.h>

#include <algorithm>
#include <vector>

namespace zevweb {

namespace {

constexpr int kClosingSeconds = 5;

// The protocol has room for 123 bytes.
constexpr size_t kLongestReason = 123;

}  // namespace

bool WriteTo(lws* connection, std::string_view bytes, int protocol) {
  // The library writes its frame's head in front of the bytes. Only the server's thread comes here.
  static std::vector<unsigned char> buffer;
  buffer.resize(LWS_PRE + bytes.size());
  std::copy(bytes.begin(), bytes.end(), buffer.begin() + LWS_PRE);
  const auto form = static_cast<lws_write_protocol>(protocol);
  return lws_write(connection, buffer.data() + LWS_PRE, bytes.size(), form) >=
         static_cast<int>(bytes.size());
}

WebPeer::WebPeer(lws* connection, bool is_websocket, Workers& workers)
    : connection_(connection),
      is_websocket_(is_websocket),
      workers_(workers),
      server_(std::this_thread::get_id()) {}

void WebPeer::WantToWrite() {
  if (std::this_thread::get_id() != server_) {
    workers_.OnServer([weak = weak_from_this()] {
      if (const auto peer = weak.lock()) peer->WantToWrite();
    });
    return;
  }
  is_wanted_ = true;
  if (connection_ != nullptr && is_open_) lws_callback_on_writable(connection_);
}

void WebPeer::Open() {
  is_open_ = true;
  if (is_wanted_) lws_callback_on_writable(connection_);
}

void WebPeer::Write(std::string_view bytes, bool is_text) {
  if (connection_ == nullptr || is_closing_) return;
  int protocol = LWS_WRITE_HTTP;
  if (is_websocket_) protocol = is_text ? LWS_WRITE_TEXT : LWS_WRITE_BINARY;
  if (!WriteTo(connection_, bytes, protocol)) is_broken_ = true;
}

void WebPeer::Close(uint16_t status, std::string_view reason) {
  if (connection_ == nullptr || is_closing_) return;
  is_closing_ = true;
  std::string text(reason.substr(0, kLongestReason));
  if (is_websocket_) {
    lws_close_reason(connection_, static_cast<lws_close_status>(status),
                     reinterpret_cast<unsigned char*>(text.data()), text.size());
  }
  // A peer that reads nothing does not keep the connection open.
  lws_set_timeout(connection_, PENDING_TIMEOUT_CLOSE_SEND, kClosingSeconds);
  is_wanted_ = true;
  if (is_open_) lws_callback_on_writable(connection_);
}

}  // namespace zevweb
