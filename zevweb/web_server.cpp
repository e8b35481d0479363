#include "web_server.h"

#include <grp.h>
#include <openssl/ssl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>
#include <utility>

#include "exit_status.h"
#include "output.h"

namespace zevweb {

namespace {

using std::chrono::steady_clock;

constexpr int kHeadSeconds = 10;
constexpr int kIdleSeconds = 30;
constexpr uint16_t kMostHead = 16384;
constexpr lws_usec_t kTick = 1'000'000;
constexpr std::chrono::seconds kCheckPause{2};
constexpr std::chrono::seconds kKeepPause{60};
constexpr std::chrono::seconds kEndLimit{3};

constexpr uint16_t kGoingAway = 1001;
constexpr uint16_t kNotAdmitted = 1008;

// The library finds a vhost by the port and the name that a request is for. Nobody listens here.
constexpr int kPortOfProxy = 0;

// A viewer whose machine has vanished is noticed within some minutes.
constexpr lws_retry_bo_t kLiveness = {nullptr, 0, 0, 60, 150, 0};

// Threads that end after the library's context want to wake it still.
std::mutex context_mutex;
lws_context* the_context = nullptr;

void SetContext(lws_context* context) {
  const std::lock_guard lock(context_mutex);
  the_context = context;
}

void TellOfLibrary(int, const char* line) {
  std::string_view text = line;
  while (text.ends_with('\n')) text.remove_suffix(1);
  zevctl::Announce("zevweb: libwebsockets: " + std::string(text));
}

[[noreturn]] void ThrowCannotListen(const std::string& where, const std::string& mend) {
  throw zevctl::Failure(zevctl::ExitStatus::kFailed, "cannot listen on " + where + "; " + mend);
}

void RequireReadable(const std::string& file) {
  if (access(file.c_str(), R_OK) == 0) return;
  throw zevctl::Failure(zevctl::ExitStatus::kFailed,
                        "cannot read " + file + ": " + strerror(errno) +
                            "; set \"certificate\" and \"key\" in zevweb.toml, or see its rights");
}

// Descriptors are given out from the lowest; what is left above belongs to the journal, the daemon
// and the files. Without any left the library would try to accept over and over.
int MostDescriptors() {
  constexpr rlim_t kOwn = 64;
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur > INT_MAX) return INT_MAX;
  return static_cast<int>(
      std::max(limit.rlim_cur / 2, limit.rlim_cur - std::min(limit.rlim_cur, kOwn)));
}

void Tick(lws_sorted_usec_list_t*) {}

}  // namespace

WebServer::WebServer(const WebShop& shop, WebSessions& sessions)
    : shop_(shop), sessions_(sessions), most_descriptors_(MostDescriptors()) {
  lws_set_log_level(LLL_ERR, TellOfLibrary);
  static const lws_protocols kProtocols[] = {{"http", Callback, 0, 2048, 0, nullptr, 0},
                                             {nullptr, nullptr, 0, 0, 0, nullptr, 0}};
  lws_context_creation_info info{};
  info.protocols = kProtocols;
  info.gid = info.uid = -1;
  info.user = this;
  info.max_http_header_data = kMostHead;
  info.timeout_secs = kHeadSeconds;
  info.keepalive_timeout = kIdleSeconds;
  info.timeout_secs_ah_idle = kHeadSeconds;
  info.retry_and_idle_policy = &kLiveness;
  info.ka_time = 60;
  info.ka_interval = 20;
  info.ka_probes = 3;
  info.alpn = "http/1.1";
  info.options = LWS_SERVER_OPTION_EXPLICIT_VHOSTS | LWS_SERVER_OPTION_SKIP_SERVER_CANONICAL_NAME |
                 LWS_SERVER_OPTION_FAIL_UPON_UNABLE_TO_BIND;
  if (shop.options.tls) info.options |= LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
  context_ = lws_create_context(&info);
  if (context_ == nullptr) {
    throw zevctl::Failure(zevctl::ExitStatus::kFailed,
                          "the library of WebSockets does not start; see its message above");
  }
  SetContext(context_);
  try {
    ListenOnPort(info);
    if (!shop.options.proxy.socket.empty()) ListenForProxy(info);
  } catch (...) {
    SetContext(nullptr);
    lws_context_destroy(context_);
    throw;
  }
}

WebServer::~WebServer() {
  SetContext(nullptr);
  lws_context_destroy(context_);
}

void WebServer::ListenOnPort(lws_context_creation_info info) {
  const WebOptions& options = shop_.options;
  info.port = options.port;
  info.iface = options.address.c_str();
  info.vhost_name = "station";
  if (options.address.find(':') == std::string::npos)
    info.options |= LWS_SERVER_OPTION_DISABLE_IPV6;
  if (options.tls) {
    RequireReadable(options.certificate);
    RequireReadable(options.key);
    info.ssl_cert_filepath = options.certificate.c_str();
    info.ssl_private_key_filepath = options.key.c_str();
    info.ssl_options_set = static_cast<long>(SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1);
  }
  vhost_ = lws_create_vhost(context_, &info);
  if (vhost_ != nullptr && lws_get_vhost_listen_port(vhost_) == options.port) return;
  ThrowCannotListen(options.address + " port " + std::to_string(options.port),
                    "another program may have the port, or the certificate may be no good: see the "
                    "message above");
}

void WebServer::ListenForProxy(lws_context_creation_info info) {
  const WebOptions::Proxy& proxy = shop_.options.proxy;
  info.port = kPortOfProxy;
  info.iface = proxy.socket.c_str();
  info.vhost_name = "proxy";
  info.options |= LWS_SERVER_OPTION_UNIX_SOCK;
  info.options &= ~static_cast<uint64_t>(LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT);
  const mode_t before = umask(S_IRWXO | S_IXUSR | S_IXGRP);
  lws_vhost* vhost = lws_create_vhost(context_, &info);
  umask(before);
  constexpr char kMend[] = "see the rights of its directory, and \"socket\" in zevweb.toml";
  if (vhost == nullptr || access(proxy.socket.c_str(), F_OK) != 0) {
    ThrowCannotListen(proxy.socket, kMend);
  }
  gid_t owner = static_cast<gid_t>(-1);
  if (!proxy.group.empty()) {
    const group* entry = getgrnam(proxy.group.c_str());
    if (entry == nullptr) ThrowCannotListen(proxy.socket, "there is no group " + proxy.group);
    owner = entry->gr_gid;
  }
  if (chmod(proxy.socket.c_str(), S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP) != 0 ||
      chown(proxy.socket.c_str(), static_cast<uid_t>(-1), owner) != 0) {
    ThrowCannotListen(proxy.socket, "this program must be a member of the group " + proxy.group);
  }
}

// ---- What the library tells ---------------------------------------------------------------------

int WebServer::Callback(lws* connection, lws_callback_reasons reason, void* user, void* in,
                        size_t length) {
  auto* server = static_cast<WebServer*>(lws_context_user(lws_get_context(connection)));
  if (server == nullptr) return 0;
  if (reason == LWS_CALLBACK_OPENSSL_LOAD_EXTRA_SERVER_VERIFY_CERTS) {
    server->tls_ = static_cast<SSL_CTX*>(user);
    SSL_CTX_set_mode(server->tls_, SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_session_cache_mode(server->tls_, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_num_tickets(server->tls_, 0);
    SSL_CTX_set_min_proto_version(server->tls_, TLS1_2_VERSION);
    return 0;
  }
  try {
    return server->Tell(connection, reason, in, length);
  } catch (const std::exception& error) {
    zevctl::Announce(std::string("zevweb: ") + error.what());
    return -1;
  }
}

int WebServer::Tell(lws* connection, lws_callback_reasons reason, void* in, size_t length) {
  switch (reason) {
    case LWS_CALLBACK_FILTER_NETWORK_CONNECTION:
      return HasRoomFor(static_cast<int>(reinterpret_cast<intptr_t>(in))) ? 0 : -1;
    case LWS_CALLBACK_HTTP:
      return is_ending_ || !Connection(connection).BeginRequest() ? -1 : 0;
    case LWS_CALLBACK_HTTP_BODY:
      return Connection(connection).TakeBody({static_cast<char*>(in), length}) ? 0 : -1;
    case LWS_CALLBACK_HTTP_BODY_COMPLETION:
      return Connection(connection).EndBody() ? 0 : -1;
    case LWS_CALLBACK_HTTP_WRITEABLE:
      return Connection(connection).WriteAnswer() ? 0 : -1;
    case LWS_CALLBACK_HTTP_CONFIRM_UPGRADE:
      return !is_ending_ && strcasecmp(static_cast<char*>(in), "websocket") == 0 &&
                     Connection(connection).Upgrade()
                 ? 0
                 : -1;
    case LWS_CALLBACK_ESTABLISHED:
    case LWS_CALLBACK_RECEIVE:
    case LWS_CALLBACK_SERVER_WRITEABLE:
      return TellWebSocket(connection, Connection(connection), reason, in, length);
    case LWS_CALLBACK_WSI_DESTROY:
      Forget(connection);
      return 0;
    // What the library would do by itself includes nothing that is wanted here.
    default:
      return 0;
  }
}

int WebServer::TellWebSocket(lws* connection, WebConnection& known, lws_callback_reasons reason,
                             void* in, size_t length) {
  if (reason == LWS_CALLBACK_ESTABLISHED) {
    known.Open();
    return 0;
  }
  if (reason == LWS_CALLBACK_SERVER_WRITEABLE) return known.WriteFrame() ? 0 : -1;
  const bool is_first = lws_is_first_fragment(connection) != 0;
  const bool is_last =
      lws_is_final_fragment(connection) != 0 && lws_remaining_packet_payload(connection) == 0;
  const bool is_text = lws_frame_is_binary(connection) == 0;
  return known.TakeFrame({static_cast<char*>(in), length}, is_first, is_last, is_text) ? 0 : -1;
}

bool WebServer::HasRoomFor(int descriptor) const {
  return descriptor < most_descriptors_;
}

WebConnection& WebServer::Connection(lws* connection) {
  auto* known = static_cast<WebConnection*>(lws_get_opaque_user_data(connection));
  if (known == nullptr) {
    known = new WebConnection(connection, shop_);
    lws_set_opaque_user_data(connection, known);
    connections_.insert(known);
  }
  return *known;
}

void WebServer::Forget(lws* connection) {
  auto* known = static_cast<WebConnection*>(lws_get_opaque_user_data(connection));
  if (known == nullptr) return;
  lws_set_opaque_user_data(connection, nullptr);
  connections_.erase(known);
  delete known;
}

// ---- The loop -----------------------------------------------------------------------------------

void WebServer::Serve(WebManager& manager) {
  while (!is_ending_) {
    lws_sul_schedule(context_, 0, &tick_, Tick, kTick);
    lws_service(context_, 0);
    shop_.workers.RunOnServer();
    RunDue();
    manager.Feed();
  }
  manager.Say("STOPPING=1");
  CloseChannels();
  const auto limit = steady_clock::now() + kEndLimit;
  while (IsBusy() && steady_clock::now() < limit) {
    lws_sul_schedule(context_, 0, &tick_, Tick, kTick / 10);
    lws_service(context_, 0);
    shop_.workers.RunOnServer();
  }
  sessions_.Keep();
}

void WebServer::End() {
  is_ending_ = true;
  Wake();
}

void WebServer::Reload() {
  is_reloading_ = true;
  Wake();
}

void WebServer::Wake() {
  const std::lock_guard lock(context_mutex);
  if (the_context != nullptr) lws_cancel_service(the_context);
}

void WebServer::RunDue() {
  if (is_reloading_.exchange(false)) TakeCertificate();
  const auto now = steady_clock::now();
  if (now - checked_ >= kCheckPause && !is_checking_) {
    checked_ = now;
    CheckChannels();
  }
  if (now - kept_ >= kKeepPause) {
    kept_ = now;
    KeepSessions();
  }
}

void WebServer::KeepSessions() {
  try {
    shop_.workers.Run([this] { sessions_.Keep(); }, {});
  } catch (const Problem&) {
    kept_ = {};  // at the next occasion
  }
}

// New connections get the new certificate; those that there are go on.
void WebServer::TakeCertificate() {
  const WebOptions& options = shop_.options;
  if (tls_ == nullptr) return;
  if (certificate_.Take(tls_, options.certificate, options.key)) {
    zevctl::Announce("zevweb: the certificate in " + options.certificate + " is in use");
  } else {
    zevctl::Announce("zevweb: the certificate in " + options.certificate + " and the key in " +
                     options.key + " cannot be used; the former ones stay, so mend the files");
  }
}

// Whose session, token or membership has ended loses the channels, too.
void WebServer::CheckChannels() {
  struct One {
    std::weak_ptr<WebPeer> peer;
    WebHead head;
    bool holds = true;
  };
  auto all = std::make_shared<std::vector<One>>();
  for (const WebConnection* connection : connections_) {
    if (connection->HasChannel()) all->push_back({connection->peer(), connection->channel_head()});
  }
  if (all->empty()) return;
  const auto work = [&gate = shop_.gate, all] {
    for (One& one : *all) one.holds = gate.StillHolds(one.head);
  };
  const auto done = [this, all] {
    is_checking_ = false;
    for (const One& one : *all) {
      const auto peer = one.holds ? nullptr : one.peer.lock();
      if (peer) peer->Close(kNotAdmitted, "your session has ended; log in again");
    }
  };
  try {
    shop_.workers.Run(work, done);
    is_checking_ = true;
  } catch (const Problem&) {
    checked_ = {};
  }
}

void WebServer::CloseChannels() {
  for (WebConnection* connection : connections_) {
    if (connection->HasChannel()) connection->peer()->Close(kGoingAway, "the server ends");
  }
}

bool WebServer::IsBusy() const {
  for (const WebConnection* connection : connections_) {
    if (connection->HasChannel() || connection->IsBusy()) return true;
  }
  return false;
}

}  // namespace zevweb
