#include "fleet_etcd.h"

#include <nettle/base64.h>

#include <algorithm>
#include <charconv>
#include <functional>
#include <nlohmann/json.hpp>

#include "config_file.h"
#include "exit_status.h"
#include "fleet_http.h"

namespace zevfleet {

namespace {

using Cause = EtcdError::Cause;

constexpr int64_t kPageSize = 2000;  // keys in one answer: about half a megabyte

// Status codes of gRPC, which the gateway passes on.
constexpr int64_t kInvalidArgument = 3;
constexpr int64_t kNotFound = 5;
constexpr int64_t kOutOfRange = 11;
constexpr int64_t kUnauthenticated = 16;

std::string Encoded(std::string_view bytes) {
  std::string text(BASE64_ENCODE_RAW_LENGTH(bytes.size()), '\0');
  base64_encode_raw(text.data(), bytes.size(), reinterpret_cast<const uint8_t*>(bytes.data()));
  return text;
}

std::string Decoded(const Json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_string()) return {};
  const auto& text = found->get_ref<const std::string&>();
  std::string bytes(BASE64_DECODE_LENGTH(text.size()), '\0');
  base64_decode_ctx context;
  base64_decode_init(&context);
  size_t length = bytes.size();
  const bool sound =
      base64_decode_update(&context, &length, reinterpret_cast<uint8_t*>(bytes.data()), text.size(),
                           text.data()) != 0 &&
      base64_decode_final(&context) != 0;
  bytes.resize(sound ? length : 0);
  return bytes;
}

// How the gateway tells that something went wrong: with a code of gRPC, also in the middle of a
// stream.
[[noreturn]] void ThrowRefusal(const Json& answer) {
  const Json& error =
      answer.contains("error") && answer["error"].is_object() ? answer["error"] : answer;
  const auto text = [&](const char* key) {
    const auto found = error.find(key);
    return found != error.end() && found->is_string() ? found->get<std::string>() : std::string();
  };
  std::string message = text("message");
  if (message.empty()) message = text("error");
  const int64_t code = NumberIn(error, error.contains("grpc_code") ? "grpc_code" : "code");
  const bool is_lease = message.find("lease not found") != std::string::npos;
  if (code == kNotFound && is_lease) throw EtcdError(Cause::kNoLease, message);
  if (code == kOutOfRange) throw EtcdError(Cause::kCompacted, message);
  const bool lacks_leader = message.find("leader") != std::string::npos ||
                            message.find("timed out") != std::string::npos ||
                            message.find("deadline") != std::string::npos ||
                            message.find("stopped") != std::string::npos;
  throw EtcdError(lacks_leader ? Cause::kUnreachable : Cause::kRefused, message);
}

std::string MessageIn(const Json& answer) {
  return answer.value("message", answer.value("error", std::string()));
}

// A token that is not known any more, or none where one is wanted.
bool IsForWantOfLogin(const Json& answer) {
  const int64_t code = NumberIn(answer, "code");
  const std::string message = MessageIn(answer);
  return code == kUnauthenticated ||
         (code == kInvalidArgument && (message.find("auth") != std::string::npos ||
                                       message.find("user name is empty") != std::string::npos));
}

const Json& Member(const Json& object, const char* key) {
  static const Json kNothing = Json::object();
  const auto found = object.find(key);
  return found != object.end() && found->is_object() ? *found : kNothing;
}

}  // namespace

int64_t NumberIn(const Json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end()) return 0;
  if (found->is_number()) return found->get<int64_t>();
  if (!found->is_string()) return 0;
  const auto& text = found->get_ref<const std::string&>();
  // Those without a sign go up to 2^64.
  uint64_t number = 0;
  if (std::from_chars(text.data(), text.data() + text.size(), number).ec == std::errc()) {
    return static_cast<int64_t>(number);
  }
  int64_t signed_number = 0;
  std::from_chars(text.data(), text.data() + text.size(), signed_number);
  return signed_number;
}

EtcdKey DecodeKey(const Json& key) {
  return {.key = Decoded(key, "key"),
          .value = Decoded(key, "value"),
          .create_revision = NumberIn(key, "create_revision"),
          .mod_revision = NumberIn(key, "mod_revision"),
          .lease = NumberIn(key, "lease")};
}

std::string EndOfPrefix(std::string prefix) {
  while (!prefix.empty() && prefix.back() == '\xFF') prefix.pop_back();
  if (prefix.empty()) return std::string(1, '\0');  // all keys
  ++prefix.back();
  return prefix;
}

// ---- Transactions -------------------------------------------------------------------------------

EtcdTransaction& EtcdTransaction::Compare(const std::string& key, const char* target,
                                          const char* field, int64_t number) {
  const Json comparison = {{"key", Encoded(key)},
                           {"target", target},
                           {"result", "EQUAL"},
                           {field, std::to_string(number)}};
  comparisons_.push_back(comparison.dump());
  return *this;
}

EtcdTransaction& EtcdTransaction::IfMissing(const std::string& key) {
  return Compare(key, "CREATE", "create_revision", 0);
}

EtcdTransaction& EtcdTransaction::IfUnchanged(const std::string& key, int64_t mod_revision) {
  return Compare(key, "MOD", "mod_revision", mod_revision);
}

EtcdTransaction& EtcdTransaction::IfOfLease(const std::string& key, int64_t lease) {
  return Compare(key, "LEASE", "lease", lease);
}

EtcdTransaction& EtcdTransaction::Put(const std::string& key, const std::string& value,
                                      int64_t lease) {
  Json put = {{"key", Encoded(key)}, {"value", Encoded(value)}};
  if (lease != 0) put["lease"] = std::to_string(lease);
  changes_.push_back(Json{{"request_put", put}}.dump());
  return *this;
}

EtcdTransaction& EtcdTransaction::Delete(const std::string& key) {
  changes_.push_back(Json{{"request_delete_range", {{"key", Encoded(key)}}}}.dump());
  return *this;
}

Json EtcdTransaction::Request() const {
  const auto list = [](const std::vector<std::string>& texts) {
    Json items = Json::array();
    for (const std::string& text : texts) items.push_back(Json::parse(text));
    return items;
  };
  return {{"compare", list(comparisons_)}, {"success", list(changes_)}};
}

// ---- Requests -----------------------------------------------------------------------------------

struct Etcd::Handle {
  explicit Handle(const TlsFiles& tls) : http(tls) {}
  HttpClient http;
};

Etcd::Etcd(const EtcdOptions& options)
    : options_(options), handle_(std::make_unique<Handle>(options.tls)) {}

Etcd::~Etcd() = default;

void Etcd::Leave() {
  endpoint_ = (endpoint_ + 1) % options_.endpoints.size();
}

void Etcd::Note(const Json& answer) {
  const Json& header = Member(answer, "header");
  term_ = {options_.endpoints[endpoint_], static_cast<uint64_t>(NumberIn(header, "raft_term"))};
}

void Etcd::LogIn() {
  const zevctl::ReadFile file = zevctl::ReadWhole(options_.password_file);
  if (file.kind != zevctl::FileKind::kRegular) {
    throw EtcdError(Cause::kRefused, "cannot read " + options_.password_file + ": " + file.reason);
  }
  const std::string password = file.text.substr(0, file.text.find('\n'));
  const Json answer = PostOnce("/v3/auth/authenticate",
                               Json{{"name", options_.user}, {"password", password}}.dump());
  token_ = answer.value("token", std::string());
  wants_login_ = MessageIn(answer).find("authentication is not enabled") == std::string::npos;
  if (!token_.empty() || !wants_login_) return;
  try {
    ThrowRefusal(answer);
  } catch (const EtcdError& error) {
    if (error.cause() == Cause::kUnreachable) Leave();
    throw EtcdError(error.cause(),
                    "cannot log in to etcd as \"" + options_.user + "\": " + error.what());
  }
}

void Etcd::LogInOnce() {
  if (!options_.user.empty() && token_.empty() && wants_login_) LogIn();
}

Json Etcd::PostOnce(const std::string& path, const std::string& body) {
  const HttpAnswer reply = handle_->http.Post(options_.endpoints[endpoint_] + path, body, token_);
  if (!reply.error.empty()) {
    const std::string text = options_.endpoints[endpoint_] + ": " + reply.error;
    Leave();
    throw EtcdError(Cause::kUnreachable, text);
  }
  if (reply.clock_ahead) clock_ahead_ = *reply.clock_ahead;
  Json answer = zevctl::ReadJson(reply.body);
  if (!answer.is_object()) {
    const std::string text = options_.endpoints[endpoint_] + " does not answer as etcd 3.4 does";
    Leave();
    throw EtcdError(Cause::kRefused, text);
  }
  return answer;
}

Json Etcd::Post(const std::string& path, const Json& request) {
  const std::string body = request.dump();
  LogInOnce();
  Json answer = PostOnce(path, body);
  const auto has_error = [&] { return answer.contains("error") || answer.contains("code"); };
  if (has_error() && !options_.user.empty() && IsForWantOfLogin(answer)) {
    token_.clear();
    LogIn();
    answer = PostOnce(path, body);
  }
  if (!has_error()) {
    Note(answer);
    return answer;
  }
  try {
    ThrowRefusal(answer);
  } catch (const EtcdError& error) {
    if (error.cause() == Cause::kUnreachable) Leave();
    throw;
  }
}

EtcdListing Etcd::List(const std::string& prefix) {
  EtcdListing listing;
  std::string from = prefix;
  for (bool more = true; more;) {
    Json request = {{"key", Encoded(from)},
                    {"range_end", Encoded(EndOfPrefix(prefix))},
                    {"limit", std::to_string(kPageSize)}};
    if (listing.revision != 0) request["revision"] = std::to_string(listing.revision);
    const Json answer = Post("/v3/kv/range", request);
    if (listing.revision == 0) listing.revision = NumberIn(Member(answer, "header"), "revision");
    if (const auto keys = answer.find("kvs"); keys != answer.end()) {
      for (const Json& key : *keys) listing.keys.push_back(DecodeKey(key));
    }
    more = answer.value("more", false);
    if (more) from = listing.keys.back().key + '\0';
  }
  return listing;
}

std::optional<EtcdKey> Etcd::Get(const std::string& key) {
  const Json answer = Post("/v3/kv/range", {{"key", Encoded(key)}});
  const auto keys = answer.find("kvs");
  if (keys == answer.end() || keys->empty()) return {};
  return DecodeKey(keys->front());
}

bool Etcd::Commit(const EtcdTransaction& transaction) {
  return Post("/v3/kv/txn", transaction.Request()).value("succeeded", false);
}

EtcdLease Etcd::Grant(int64_t seconds) {
  const Json answer = Post("/v3/lease/grant", {{"TTL", std::to_string(seconds)}});
  return {NumberIn(answer, "ID"), NumberIn(answer, "TTL")};
}

int64_t Etcd::KeepAlive(int64_t lease) {
  const Json answer = Post("/v3/lease/keepalive", {{"ID", std::to_string(lease)}});
  const Json& result = Member(answer, "result");
  Note(result);
  // A lease that is not known has no seconds left, and that is no error here.
  const int64_t seconds = NumberIn(result, "TTL");
  if (seconds <= 0) throw EtcdError(Cause::kNoLease, "the lease has ended");
  return seconds;
}

void Etcd::Revoke(int64_t lease) {
  Post("/v3/lease/revoke", {{"ID", std::to_string(lease)}});
}

void Etcd::Watch(const std::string& prefix, int64_t revision, const TakeEvents& take,
                 const std::atomic<bool>& stop) {
  LogInOnce();
  const Json request = {{"create_request",
                         {{"key", Encoded(prefix)},
                          {"range_end", Encoded(EndOfPrefix(prefix))},
                          {"start_revision", std::to_string(revision)}}}};
  const std::string endpoint = options_.endpoints[endpoint_];
  std::optional<EtcdError> refusal;
  const auto take_line = [&](std::string_view line) {
    const Json answer = zevctl::ReadJson(line);
    if (!answer.is_object()) return false;
    const Json& result = Member(answer, "result");
    if (NumberIn(result, "compact_revision") != 0) {
      refusal.emplace(Cause::kCompacted, "the revision has been compacted");
      return false;
    }
    if (answer.contains("error") || result.value("canceled", false)) {
      token_.clear();
      wants_login_ = true;
      refusal.emplace(Cause::kRefused, endpoint + " has ended the watch");
      return false;
    }
    return take(result);
  };
  const std::string error =
      handle_->http.Stream(endpoint + "/v3/watch", request.dump(), token_, take_line, stop);
  if (refusal) throw *refusal;
  if (!error.empty()) {
    Leave();
    throw EtcdError(Cause::kUnreachable, endpoint + ": " + error);
  }
}

}  // namespace zevfleet
