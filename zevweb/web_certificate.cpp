#include "web_certificate.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

namespace zevweb {

WebCertificate::~WebCertificate() {
  SSL_CTX_free(newest_);
}

// The library keeps a certificate for each type of key, and might go on showing one whose successor
// has a key of another type. So the newest has a context of its own.
bool WebCertificate::Take(ssl_ctx_st* server, const std::string& certificate,
                          const std::string& key) {
  SSL_CTX* made = SSL_CTX_new(TLS_server_method());
  const bool is_good = made != nullptr &&
                       SSL_CTX_use_certificate_chain_file(made, certificate.c_str()) == 1 &&
                       SSL_CTX_use_PrivateKey_file(made, key.c_str(), SSL_FILETYPE_PEM) == 1 &&
                       SSL_CTX_check_private_key(made) == 1;
  // What is left here would be taken for an error of the next connection.
  ERR_clear_error();
  if (!is_good) {
    SSL_CTX_free(made);
    return false;
  }
  SSL_CTX_free(newest_);
  newest_ = made;
  SSL_CTX_set_cert_cb(server, Choose, this);
  return true;
}

int WebCertificate::Choose(ssl_st* connection, void* self) {
  return SSL_set_SSL_CTX(connection, static_cast<WebCertificate*>(self)->newest_) != nullptr ? 1
                                                                                             : 0;
}

}  // namespace zevweb
