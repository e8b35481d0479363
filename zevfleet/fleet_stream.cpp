#include "fleet_stream.h"

#include <nats/nats.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>
#include <vector>

#include "exit_status.h"
#include "json_line.h"

namespace zevfleet {

namespace {

using zevctl::ExitStatus;
using zevctl::Failure;

constexpr char kSequenceHeader[] = "Nats-Expected-Last-Sequence";
constexpr int64_t kNanoseconds = 1'000'000'000;  // in a second
constexpr int64_t kDuplicates =
    int64_t{2} * 3600 * kNanoseconds;  // window of the server's own check
constexpr int64_t kHour = 3600 * kNanoseconds;

// In milliseconds.
constexpr int64_t kConnectTime = 3000;
constexpr int64_t kAnswerTime = 5000;
constexpr int64_t kWriteTime = 5000;
constexpr int kSpareTime = 20000;  // for whatever else a call does
constexpr int64_t kPingTime = 5000;
constexpr int kMostPings = 2;

constexpr int kWrongLastSequence = JSStreamWrongLastSequenceErr;

template <typename Object, void (*destroy)(Object*)>
struct Destroy {
  void operator()(Object* object) const { destroy(object); }
};

template <typename Object, void (*destroy)(Object*)>
using Owned = std::unique_ptr<Object, Destroy<Object, destroy>>;

using Options = Owned<natsOptions, natsOptions_Destroy>;
using Connection = Owned<natsConnection, natsConnection_Destroy>;
using Subscription = Owned<natsSubscription, natsSubscription_Destroy>;
using JetStream = Owned<jsCtx, jsCtx_Destroy>;
using Message = Owned<natsMsg, natsMsg_Destroy>;
using StreamInfo = Owned<jsStreamInfo, jsStreamInfo_Destroy>;

// What the library says of the last call, which has failed.
std::string Reason(natsStatus status) {
  natsStatus of = NATS_OK;
  const char* last = nats_GetLastError(&of);
  return of == status && last != nullptr && *last != '\0' ? last : natsStatus_GetText(status);
}

void SeeTo(natsStatus status, const std::string& what) {
  if (status == NATS_OK) return;
  throw Failure(ExitStatus::kFailed, what + ": " + Reason(status));
}

void SetTls(natsOptions* options, const NatsOptions& nats) {
  const bool is_named = std::ranges::any_of(
      nats.urls, [](const std::string& url) { return url.starts_with("tls://"); });
  if (!nats.tls.ca.empty()) {
    SeeTo(natsOptions_LoadCATrustedCertificates(options, nats.tls.ca.c_str()),
          "cannot use " + nats.tls.ca);
  }
  if (!nats.tls.key.empty()) {
    SeeTo(natsOptions_LoadCertificatesChain(options, nats.tls.certificate.c_str(),
                                            nats.tls.key.c_str()),
          "cannot use " + nats.tls.certificate + " and " + nats.tls.key);
  }
  if (is_named || !nats.tls.ca.empty()) {
    SeeTo(natsOptions_SetSecure(options, true), "cannot use TLS");
  }
}

// The library would print each error that the server tells of; CheckErrors() asks for the last one.
void KeepQuiet(natsConnection*, natsSubscription*, natsStatus, void*) {}

// The library must not connect again by itself: it would send what it has kept.
void SetConnecting(natsOptions* options, const NatsOptions& nats, const ShipName& name) {
  std::vector<const char*> urls;
  for (const std::string& url : nats.urls) urls.push_back(url.c_str());
  SeeTo(natsOptions_SetServers(options, urls.data(), static_cast<int>(urls.size())),
        "cannot use \"urls\"");
  natsOptions_SetName(options, ("zevfleet " + name.station).c_str());
  natsOptions_SetAllowReconnect(options, false);
  natsOptions_SetTimeout(options, kConnectTime);
  natsOptions_SetWriteDeadline(options, kWriteTime);
  natsOptions_SetPingInterval(options, kPingTime);
  natsOptions_SetMaxPingsOut(options, kMostPings);
  natsOptions_SetErrorHandler(options, KeepQuiet, nullptr);
  if (!nats.credentials.empty()) {
    SeeTo(natsOptions_SetUserCredentialsFromFiles(options, nats.credentials.c_str(), nullptr),
          "cannot use " + nats.credentials);
  }
}

Options MakeOptions(const NatsOptions& nats, const ShipName& name) {
  natsOptions* made = nullptr;
  SeeTo(natsOptions_Create(&made), "cannot use the NATS library");
  Options options(made);
  SetConnecting(options.get(), nats, name);
  SetTls(options.get(), nats);
  return options;
}

// Most refusals pass by: the server is full, or the servers have not agreed on a leader yet.
[[noreturn]] void ThrowFor(natsStatus status, jsErrCode code, const std::string& stream) {
  const std::string reason = Reason(status);
  if (code == JSStreamSubjectOverlapErr) {
    throw Failure(ExitStatus::kFailed, "another stream takes the subjects of " + stream +
                                           "; see which one, and give it others");
  }
  const bool is_away = status == NATS_TIMEOUT || status == NATS_CONNECTION_CLOSED ||
                       status == NATS_CONNECTION_DISCONNECTED || status == NATS_STALE_CONNECTION;
  if (status == NATS_NO_RESPONDERS) {
    throw Setback(Setback::Kind::kRefused, "no server keeps streams (JetStream) now");
  }
  throw Setback(is_away ? Setback::Kind::kAway : Setback::Kind::kRefused, reason);
}

std::string Subjects(const ShipName& name) {
  return name.site + "." + name.station + ".>";
}

// What somebody else may have made and what cannot take the messages as they must be taken. The
// limits and the number of replicas are the administrator's own.
std::string Difference(const jsStreamConfig& config, const std::string& subjects) {
  if (config.SubjectsLen != 1 || config.Subjects[0] != subjects) return "its subjects";
  if (config.Retention != js_LimitsPolicy) return "its retention";
  if (config.Storage != js_FileStorage) return "its storage";
  if (config.NoAck) return "that it acknowledges nothing";
  if (config.Mirror != nullptr || config.SourcesLen > 0) return "that it has other sources";
  if (config.MaxMsgsPerSubject > 0) return "its limit for each subject";
  if (config.MaxMsgSize > 0) return "its limit for each message";
  if (config.Sealed) return "that it is sealed";
  return {};
}

StreamTail TailOf(const jsStreamInfo& info) {
  return {.first = info.State.FirstSeq,
          .last = info.State.LastSeq,
          .is_empty = info.State.Msgs == 0,
          .most_age = info.Config->MaxAge};
}

std::string HeaderOf(natsMsg* message, const char* key) {
  const char* value = nullptr;
  return natsMsgHeader_Get(message, key, &value) == NATS_OK && value != nullptr ? value : "";
}

// The last word of the subject that the answer was sent to.
uint64_t TokenOf(natsMsg* message) {
  const std::string_view subject = natsMsg_GetSubject(message);
  const std::string_view word = subject.substr(subject.rfind('.') + 1);
  uint64_t token = 0;
  std::from_chars(word.data(), word.data() + word.size(), token);
  return token;
}

// In seconds: each server is tried when a connection is made.
int MostTime(const NatsOptions& nats) {
  const auto servers = static_cast<int64_t>(nats.urls.size());
  return static_cast<int>((kConnectTime * servers + kSpareTime) / 1000);
}

ShipAnswer AnswerIn(natsMsg* message) {
  ShipAnswer answer;
  answer.token = TokenOf(message);
  if (natsMsg_IsNoResponders(message)) {
    answer.refusal = "no server keeps the stream now";
    return answer;
  }
  const zevctl::Json data = zevctl::ReadJson(
      {natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message))});
  if (data.is_object() && data.contains("error") && data["error"].is_object()) {
    answer.refusal = data["error"].value("description", "refused");
    answer.has_moved = data["error"].value("err_code", 0) == kWrongLastSequence;
  } else if (data.is_object()) {
    answer.sequence = data.value("seq", uint64_t{0});
  }
  return answer;
}

}  // namespace

std::string StreamName(const ShipName& name) {
  return name.site + "+" + name.station;
}

// In the order in which they depend on each other.
struct ShipStream::Nats {
  Options options;
  Connection connection;
  JetStream streams;
  std::string inbox;
  Subscription answers;
};

ShipStream::ShipStream(const FleetOptions& options)
    : options_(options),
      name_{options.site, options.station},
      stream_(StreamName(name_)),
      watch_(MostTime(options.nats)),
      nats_(std::make_unique<Nats>()) {
  const LibraryWatch::Call call(watch_);
  nats_->options = MakeOptions(options.nats, name_);
  natsConnection* connection = nullptr;
  natsStatus status = natsConnection_Connect(&connection, nats_->options.get());
  if (status != NATS_OK) throw Setback(Setback::Kind::kAway, Reason(status));
  nats_->connection.reset(connection);

  jsOptions wanted;
  jsOptions_Init(&wanted);
  wanted.Wait = kAnswerTime;
  jsCtx* streams = nullptr;
  status = natsConnection_JetStream(&streams, connection, &wanted);
  if (status != NATS_OK) throw Setback(Setback::Kind::kAway, Reason(status));
  nats_->streams.reset(streams);

  natsInbox* inbox = nullptr;
  SeeTo(natsInbox_Create(&inbox), "cannot use the NATS library");
  nats_->inbox = inbox;
  natsInbox_Destroy(inbox);
  natsSubscription* answers = nullptr;
  status = natsConnection_SubscribeSync(&answers, connection, (nats_->inbox + ".*").c_str());
  if (status != NATS_OK) throw Setback(Setback::Kind::kAway, Reason(status));
  nats_->answers.reset(answers);
}

ShipStream::~ShipStream() {
  const LibraryWatch::Call call(watch_);
  nats_.reset();
}

void ShipStream::Make() {
  const NatsOptions& nats = options_.nats;
  const std::string subjects = Subjects(name_);
  const char* subject = subjects.c_str();
  jsStreamConfig config;
  jsStreamConfig_Init(&config);
  config.Name = stream_.c_str();
  config.Subjects = &subject;
  config.SubjectsLen = 1;
  config.Storage = js_FileStorage;
  config.Replicas = nats.replicas;
  config.MaxBytes = nats.max_bytes > 0 ? nats.max_bytes : -1;
  config.MaxAge = nats.max_age_hours * kHour;
  config.Duplicates = config.MaxAge > 0 ? std::min(kDuplicates, config.MaxAge) : kDuplicates;
  jsErrCode code{};
  const natsStatus status = js_AddStream(nullptr, nats_->streams.get(), &config, nullptr, &code);
  if (status != NATS_OK) ThrowFor(status, code, stream_);
}

StreamTail ShipStream::Ask() {
  const LibraryWatch::Call call(watch_);
  jsStreamInfo* found = nullptr;
  jsErrCode code{};
  jsCtx* streams = nats_->streams.get();
  natsStatus status = js_GetStreamInfo(&found, streams, stream_.c_str(), nullptr, &code);
  if (status == NATS_NOT_FOUND) {
    Make();
    status = js_GetStreamInfo(&found, streams, stream_.c_str(), nullptr, &code);
  }
  if (status != NATS_OK) ThrowFor(status, code, stream_);
  const StreamInfo info(found);
  const std::string difference = Difference(*info->Config, Subjects(name_));
  if (difference.empty()) return TailOf(*info);
  throw Failure(ExitStatus::kFailed, "there is a stream " + stream_ +
                                         " that was made differently: " + difference +
                                         "; it is left alone");
}

std::optional<ShipPlace> ShipStream::PlaceAt(uint64_t sequence) {
  const LibraryWatch::Call call(watch_);
  natsMsg* found = nullptr;
  jsErrCode code{};
  const natsStatus status =
      js_GetMsg(&found, nats_->streams.get(), stream_.c_str(), sequence, nullptr, &code);
  if (status == NATS_NOT_FOUND) return {};
  if (status != NATS_OK) ThrowFor(status, code, stream_);
  const Message message(found);
  return PlaceOf(HeaderOf(found, kIdHeader), HeaderOf(found, kRecordHeader),
                 HeaderOf(found, kTimeHeader));
}

bool ShipStream::Publish(const ShipMessage& message, const std::string& label, uint64_t behind,
                         uint64_t token) {
  const LibraryWatch::Call call(watch_);
  natsMsg* made = nullptr;
  const std::string reply = nats_->inbox + "." + std::to_string(token);
  const std::string_view content = message.content();
  natsStatus status = natsMsg_Create(&made, message.subject.c_str(), reply.c_str(), content.data(),
                                     static_cast<int>(content.size()));
  const Message sent(made);
  const auto add = [&](const char* key, const std::string& value) {
    if (status == NATS_OK) status = natsMsgHeader_Set(made, key, value.c_str());
  };
  add(kIdHeader, MessageId(message.place, label));
  add(kSequenceHeader, std::to_string(behind));
  for (const auto& [key, value] : message.headers) add(key, value);
  if (status == NATS_OK) status = natsConnection_PublishMsg(nats_->connection.get(), made);
  if (status == NATS_MAX_PAYLOAD) return false;
  if (status != NATS_OK) throw Setback(Setback::Kind::kAway, Reason(status));
  return true;
}

// A message that this user may not send gets no answer.
void ShipStream::CheckErrors() {
  const char* text = nullptr;
  const natsStatus status = natsConnection_GetLastError(nats_->connection.get(), &text);
  if (status == NATS_NOT_PERMITTED) {
    throw Setback(Setback::Kind::kRefused, text != nullptr ? text : Reason(status));
  }
}

std::optional<ShipAnswer> ShipStream::TakeAnswer() {
  const LibraryWatch::Call call(watch_);
  natsMsg* taken = nullptr;
  const natsStatus status = natsSubscription_NextMsg(&taken, nats_->answers.get(), 0);
  if (status == NATS_TIMEOUT) {
    CheckErrors();
    return {};
  }
  if (status != NATS_OK) throw Setback(Setback::Kind::kAway, Reason(status));
  const Message message(taken);
  return AnswerIn(taken);
}

}  // namespace zevfleet
