#include "web_connection.h"

#include <libwebsockets.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <exception>
#include <optional>
#include <utility>

#include "output.h"
#include "web_answer.h"
#include "web_answer_head.h"

namespace zevweb {

namespace {

using std::chrono::steady_clock;

constexpr size_t kMostBody = 65536;
constexpr size_t kMostFrame = 65536;
constexpr size_t kPiece = 16384;
constexpr int kBodySeconds = 10;
constexpr int kWorkSeconds = 120;
constexpr int kProgressSeconds = 60;

constexpr uint16_t kFrameTooLarge = 1009;

std::optional<size_t> Length(const std::string& text) {
  size_t length = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
  if (error != std::errc() || end != text.data() + text.size()) return {};
  return length;
}

bool TakesBody(const WebHead& head) {
  return head.method == "POST" || head.method == "PUT" || head.method == "PATCH";
}

std::string Chunk(const std::string& bytes) {
  char size[20];
  snprintf(size, sizeof size, "%zx\r\n", bytes.size());
  return size + bytes + "\r\n";
}

}  // namespace

// A request and its answer. A worker may have it while the connection goes away.
struct WebConnection::Exchange {
  explicit Exchange(WebConnection* the_connection) : connection(the_connection) {}

  WebConnection* connection;  // null when it has gone; only the server's thread looks
  WebHead head;
  std::string body;
  steady_clock::time_point begun = steady_clock::now();
  Request request;
  const ChannelRoute* channel = nullptr;  // what the request begins, if not an answer
  Response response;                      // of the worker, until Answer() takes it
  bool is_complete = false;               // nothing of the request is awaited; a worker may have it
  bool is_answered = false;
  bool closes = false;
  bool is_chunked = false;
  BodySource more;
  bool is_pulling = false;
  bool has_failed = false;
  std::string piece;
  bool has_more = false;
  std::string out;  // what is to be written
  size_t written = 0;
  std::string_view lasting;  // what follows, and is there as long as the server
};

WebConnection::~WebConnection() {
  if (exchange_) exchange_->connection = nullptr;
  channel_.reset();
  if (peer_) peer_->Forget();
}

// ---- Requests -----------------------------------------------------------------------------------

bool WebConnection::BeginRequest() {
  exchange_ = std::make_shared<Exchange>(this);
  exchange_->head = ReadWebHead(connection_, shop_.options);
  const WebHead& head = exchange_->head;
  exchange_->closes = !head.is_http_1_1;
  if (head.method.empty()) return Refuse(501, "this server does not know the method");
  if (!head.has_version) return Refuse(400, "the path has a line end in it; leave that out");
  // The library would take the rest of such a body for the next request.
  if (head.has_transfer_encoding) return Refuse(411, "send the body with its length in front");
  const auto length = head.content_length ? Length(*head.content_length) : std::optional<size_t>(0);
  if (!length) return Refuse(400, "the length of the body is not a number");
  if (*length > kMostBody) return Refuse(413, "the body is too long; send 64 KiB at most");
  const bool takes_body = TakesBody(head);
  if (takes_body && !head.content_length) {
    return Refuse(411, "send the body with its length in front");
  }
  if (!takes_body && *length > 0) return Refuse(400, "a request that only reads has no body");
  if (!takes_body) return Dispatch();
  lws_set_timeout(connection_, PENDING_TIMEOUT_HTTP_CONTENT, kBodySeconds);
  return *length > 0 || Dispatch();
}

bool WebConnection::TakeBody(std::string_view bytes) {
  if (!exchange_ || exchange_->is_complete) return true;
  // The library waits anew after each byte.
  if (steady_clock::now() - exchange_->begun > std::chrono::seconds(kBodySeconds)) return false;
  exchange_->body += bytes;
  return exchange_->body.size() <= kMostBody;
}

bool WebConnection::EndBody() {
  return !exchange_ || exchange_->is_complete || Dispatch();
}

bool WebConnection::Dispatch() {
  exchange_->is_complete = true;
  lws_set_timeout(connection_, PENDING_TIMEOUT_HTTP_CONTENT, kWorkSeconds);
  const WebHead& head = exchange_->head;
  if (head.path == "/healthz") {
    Response alive;
    alive.body = "{\"alive\":true}";
    Answer(std::move(alive));
    return true;
  }
  if (ServeFile()) return true;
  Ask(exchange_);
  return true;
}

bool WebConnection::ServeFile() {
  const WebHead& head = exchange_->head;
  if (head.method != "GET" && head.method != "HEAD") return false;
  const WebFile* file = shop_.files.Find(head.path);
  if (file == nullptr) return false;
  Response response;
  std::string_view file_bytes;
  response.type = file->type;
  response.headers = {{"ETag", file->tag}, {"Cache-Control", "no-cache"}};
  if (head.if_none_match.find(file->tag) != std::string::npos) {
    response.status = 304;
  } else if (!file->packed.empty() && head.accept_encoding.find("gzip") != std::string::npos) {
    response.headers.emplace_back("Content-Encoding", "gzip");
    response.headers.emplace_back("Vary", "Accept-Encoding");
    file_bytes = file->packed;
  } else {
    file_bytes = file->bytes;
  }
  Answer(std::move(response), file_bytes);
  return true;
}

void WebConnection::Ask(const std::shared_ptr<Exchange>& exchange) {
  const auto work = [&shop = shop_, exchange] {
    try {
      Judge(shop, *exchange);
    } catch (const Problem& problem) {
      exchange->response = ErrorResponse(problem.status(), problem.what());
    } catch (const std::exception& error) {
      zevctl::Announce("zevweb: " + exchange->head.path + ": " + error.what());
      exchange->response =
          ErrorResponse(500, "the server has failed; its messages tell why, so see them");
    }
  };
  const auto done = [exchange] {
    WebConnection* connection = exchange->connection;
    if (connection == nullptr) return;
    if (exchange->channel != nullptr) {
      connection->BeginChannel(*exchange->channel);
    } else {
      connection->Answer(std::move(exchange->response));
    }
  };
  try {
    shop_.workers.Run(work, done);
  } catch (const Problem& problem) {
    Refuse(problem.status(), problem.what());
  }
}

// Runs on a worker's thread; the connection may have gone.
void WebConnection::Judge(const WebShop& shop, Exchange& exchange) {
  Request request = shop.gate.Admit(exchange.head);
  request.body = std::move(exchange.body);
  const bool only_reads = request.method == "GET" || request.method == "HEAD";
  bool path_exists = false;
  const Route* route = shop.routes.FindRoute(&request, &path_exists);
  const ChannelRoute* channel =
      route == nullptr && only_reads ? shop.routes.FindChannel(&request, false) : nullptr;
  if (route == nullptr && channel == nullptr) {
    shop.gate.Check(exchange.head, request, Access::kReader, !only_reads);
    if (path_exists) throw Problem(405, "this address has no such method; see /openapi.json");
    throw Problem(404, "nothing has this address; see /openapi.json");
  }
  const Access access = route != nullptr ? route->access : channel->access;
  shop.gate.Check(exchange.head, request, access, !only_reads);
  if (channel == nullptr) {
    exchange.response = route->handler(request);
    return;
  }
  exchange.request = std::move(request);
  exchange.channel = channel;
}

bool WebConnection::Refuse(int status, const std::string& text) {
  exchange_->closes = true;
  exchange_->is_complete = true;
  Answer(ErrorResponse(status, text));
  return true;
}

// ---- Answers ------------------------------------------------------------------------------------

void WebConnection::Answer(Response response, std::string_view lasting) {
  Exchange& exchange = *exchange_;
  exchange.is_answered = true;
  exchange.more = std::move(response.more);
  const bool has_body =
      exchange.head.method != "HEAD" && response.status != 204 && response.status != 304;
  if (!has_body) exchange.more = nullptr;
  AnswerForm form;
  if (exchange.more == nullptr) form.length = response.body.size() + lasting.size();
  exchange.is_chunked = exchange.more != nullptr && exchange.head.is_http_1_1;
  form.is_chunked = exchange.is_chunked;
  form.closes = exchange.closes;
  exchange.out = AnswerHead(response, form);
  if (has_body && !response.body.empty()) {
    exchange.out += exchange.is_chunked ? Chunk(response.body) : response.body;
  }
  if (has_body) exchange.lasting = lasting;
  lws_set_timeout(connection_, PENDING_TIMEOUT_HTTP_CONTENT, kProgressSeconds);
  lws_callback_on_writable(connection_);
}

bool WebConnection::WriteAnswer() {
  if (channel_) return WriteFrame();
  if (!exchange_ || !exchange_->is_answered) return true;
  Exchange& exchange = *exchange_;
  if (exchange.is_pulling) return true;
  if (exchange.has_failed) return false;
  const bool is_lasting = exchange.written >= exchange.out.size();
  if (!is_lasting || !exchange.lasting.empty()) {
    const auto piece = is_lasting ? exchange.lasting.substr(0, kPiece)
                                  : std::string_view(exchange.out).substr(exchange.written, kPiece);
    if (!WriteTo(connection_, piece, LWS_WRITE_HTTP)) return false;
    if (is_lasting) {
      exchange.lasting.remove_prefix(piece.size());
    } else {
      exchange.written += piece.size();
    }
    lws_set_timeout(connection_, PENDING_TIMEOUT_HTTP_CONTENT, kProgressSeconds);
    lws_callback_on_writable(connection_);
    return true;
  }
  if (!exchange.more) return FinishAnswer();
  PullMore();
  return true;
}

// Asks a worker for the next piece, when what came before has been written.
void WebConnection::PullMore() {
  const std::shared_ptr<Exchange> exchange = exchange_;
  if (std::exchange(exchange->is_pulling, true)) return;
  lws_set_timeout(connection_, PENDING_TIMEOUT_HTTP_CONTENT, kWorkSeconds);
  const auto work = [exchange] {
    exchange->piece.clear();
    try {
      exchange->has_more = exchange->more(&exchange->piece);
    } catch (const std::exception& error) {
      zevctl::Announce("zevweb: " + exchange->head.path + ": " + error.what());
      exchange->has_failed = true;
    }
  };
  const auto done = [exchange] {
    exchange->is_pulling = false;
    exchange->written = 0;
    exchange->out =
        exchange->is_chunked && !exchange->piece.empty() ? Chunk(exchange->piece) : exchange->piece;
    if (!exchange->has_more) {
      exchange->more = nullptr;
      if (exchange->is_chunked) exchange->out += "0\r\n\r\n";
    }
    if (exchange->connection != nullptr)
      lws_callback_on_writable(exchange->connection->connection_);
  };
  try {
    shop_.workers.Run(work, done);
  } catch (const Problem&) {
    exchange->has_failed = true;
    lws_callback_on_writable(connection_);
  }
}

bool WebConnection::FinishAnswer() {
  const bool closes = exchange_->closes;
  exchange_->connection = nullptr;
  exchange_.reset();
  return !closes && lws_http_transaction_completed(connection_) == 0;
}

// ---- What goes on -------------------------------------------------------------------------------

void WebConnection::BeginChannel(const ChannelRoute& route) {
  peer_ = std::make_shared<WebPeer>(connection_, false, shop_.workers);
  try {
    auto channel = route.make(exchange_->request, peer_);
    channel_head_ = exchange_->head;
    Response stream;
    stream.type = "text/event-stream";
    AnswerForm form;
    form.closes = true;
    const std::string head = AnswerHead(stream, form);
    channel_ = std::move(channel);
    exchange_->connection = nullptr;
    exchange_.reset();
    lws_set_timeout(connection_, NO_PENDING_TIMEOUT, 0);
    peer_->Write(head, false);
    peer_->Open();
    peer_->WantToWrite();
  } catch (const Problem& problem) {
    peer_->Forget();
    peer_.reset();
    Answer(ErrorResponse(problem.status(), problem.what()));
  }
}

bool WebConnection::Upgrade() {
  const WebHead head = ReadWebHead(connection_, shop_.options);
  Response refusal;
  try {
    Request request = shop_.gate.Admit(head);
    const ChannelRoute* route = shop_.routes.FindChannel(&request, true);
    shop_.gate.Check(head, request, route != nullptr ? route->access : Access::kReader, true);
    if (route == nullptr) throw Problem(404, "no WebSocket has this address; see /openapi.json");
    peer_ = std::make_shared<WebPeer>(connection_, true, shop_.workers);
    channel_ = route->make(request, peer_);
    channel_head_ = head;
    return true;
  } catch (const Problem& problem) {
    refusal = ErrorResponse(problem.status(), problem.what());
  }
  if (peer_) peer_->Forget();
  peer_.reset();
  AnswerForm form;
  form.closes = true;
  form.length = refusal.body.size();
  const std::string text = AnswerHead(refusal, form) + refusal.body;
  WriteTo(connection_, text, LWS_WRITE_HTTP);
  return false;
}

void WebConnection::Open() {
  lws_set_timeout(connection_, NO_PENDING_TIMEOUT, 0);
  if (peer_) peer_->Open();
}

bool WebConnection::TakeFrame(std::string_view bytes, bool is_first, bool is_last, bool is_text) {
  if (!channel_ || peer_->is_closing()) return true;
  if (is_first) frame_.clear();
  if (frame_.size() + bytes.size() > kMostFrame) {
    peer_->Close(kFrameTooLarge, "send frames of 64 KiB at most");
    return false;
  }
  frame_ += bytes;
  if (!is_last) return true;
  const std::string frame = std::move(frame_);
  frame_ = {};
  channel_->Take(frame, is_text);
  return true;
}

bool WebConnection::WriteFrame() {
  if (!channel_) return true;
  if (peer_->is_closing()) return false;
  channel_->Writable();
  return !peer_->is_broken();
}

}  // namespace zevweb
