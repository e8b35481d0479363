// The event loop: it listens, and brings what the library tells to the connections.
#pragma once

#include <libwebsockets.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "web_certificate.h"
#include "web_connection.h"
#include "web_manager.h"

namespace zevweb {

class WebServer {
 public:
  /// Listens. Throws zevctl::Failure when that fails.
  WebServer(const WebShop& shop, WebSessions& sessions);
  ~WebServer();
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;

  /// Serves until End(). The calling thread is the server's.
  void Serve(WebManager& manager);

  // Any thread may call these.

  void End();
  void Reload();  ///< takes the certificate's files anew
  static void Wake();

 private:
  static int Callback(lws* connection, lws_callback_reasons reason, void* user, void* in,
                      size_t length);
  int Tell(lws* connection, lws_callback_reasons reason, void* in, size_t length);
  int TellWebSocket(lws* connection, WebConnection& known, lws_callback_reasons reason, void* in,
                    size_t length);
  WebConnection& Connection(lws* connection);
  void Forget(lws* connection);

  void ListenOnPort(lws_context_creation_info info);
  void ListenForProxy(lws_context_creation_info info);
  void TakeCertificate();
  bool HasRoomFor(int descriptor) const;
  void CheckChannels();
  void KeepSessions();
  void RunDue();
  void CloseChannels();
  bool IsBusy() const;

  const WebShop& shop_;
  WebSessions& sessions_;
  lws_context* context_ = nullptr;
  lws_vhost* vhost_ = nullptr;
  int most_descriptors_ = 0;
  ssl_ctx_st* tls_ = nullptr;
  WebCertificate certificate_;
  lws_sorted_usec_list_t tick_{};
  std::set<WebConnection*> connections_;
  std::atomic<bool> is_ending_ = false;
  std::atomic<bool> is_reloading_ = false;
  bool is_checking_ = false;
  std::chrono::steady_clock::time_point checked_{};
  std::chrono::steady_clock::time_point kept_{};
};

}  // namespace zevweb
