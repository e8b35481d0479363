// The certificate that the server shows, which may change while it runs.
#pragma once

#include <string>

struct ssl_ctx_st;
struct ssl_st;

namespace zevweb {

class WebCertificate {
 public:
  WebCertificate() = default;
  ~WebCertificate();
  WebCertificate(const WebCertificate&) = delete;
  WebCertificate& operator=(const WebCertificate&) = delete;

  /// Has new connections of `server` get the certificate in these files. False when they cannot be
  /// used; then nothing changes.
  bool Take(ssl_ctx_st* server, const std::string& certificate, const std::string& key);

 private:
  static int Choose(ssl_st* connection, void* self);

  ssl_ctx_st* newest_ = nullptr;
};

}  // namespace zevweb
