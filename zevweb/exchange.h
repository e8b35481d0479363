// What is asked over HTTP, and what is answered: the seam between the server, which knows
// connections, and the interface, which knows consoles.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zevweb {

/// How the server knows who asks.
enum class Proof {
  kNone,     ///< nobody has logged in
  kSession,  ///< a person who has logged in with name and password
  kProxy,    ///< a person whom the proxy on the local socket vouches for
  kToken,    ///< a machine; it reads, and never types or controls
};

/// Who asks, and from where.
struct Caller {
  Proof proof = Proof::kNone;
  std::string name;     ///< of the person, or of the token
  std::string address;  ///< of the browser; numeric, without a port
};

/// A request, complete and within the server's limits of size.
struct Request {
  std::string method;
  std::string path;                                        ///< decoded, without the query
  std::vector<std::string> parts;                          ///< what stood for each {} of the route
  std::vector<std::pair<std::string, std::string>> query;  ///< decoded, in its order
  std::string body;
  std::string accept;         ///< the header Accept, as it came
  std::string last_event_id;  ///< the header Last-Event-ID: where a stream of events broke off
  std::string session;        ///< the secret of the session's cookie, if one came
  bool is_secure = false;     ///< the browser's connection is encrypted
  Caller caller;
};

/// Gives the next piece of a body; false at its end. Runs on a worker's thread. It may throw
/// std::exception: the connection is then cut, so that nobody takes half an answer for a whole one.
using BodySource = std::function<bool(std::string* piece)>;

struct Response {
  int status = 200;
  std::string type = "application/json";
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
  BodySource more;  ///< may be empty; what follows the body
};

/// Who may use a route.
enum class Access {
  kAnyone,  ///< without a login
  kReader,  ///< people and tokens
  kPerson,  ///< people only: what types, controls or changes
};

/// Answers a request. Runs on a worker's thread, several at once, and may wait. Throws Problem.
using Handler = std::function<Response(const Request&)>;

struct Route {
  std::string method;
  std::string path;  ///< such as "/api/consoles/{name}/history"
  Access access = Access::kPerson;
  Handler handler;
};

/// Becomes an answer with that status and {"error": text} as its body. The text says what to do.
class Problem : public std::runtime_error {
 public:
  Problem(int status, const std::string& text) : std::runtime_error(text), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

/// What the server does with a connection that goes on: a WebSocket, or a stream of events. All
/// members run on the server's thread and must not wait.
class Peer {
 public:
  virtual ~Peer() = default;

  /// Asks the server to call Channel::Writable() when the peer takes more. Any thread may call it.
  virtual void WantToWrite() = 0;

  /// Sends one frame, or one piece of an event stream. Only within Channel::Writable(), and once in
  /// each call.
  virtual void Write(std::string_view bytes, bool is_text) = 0;

  /// Ends the connection after what was written, with a WebSocket status (RFC 6455, 7.4).
  virtual void Close(uint16_t status, std::string_view reason) = 0;
};

/// The other side of a Peer. All members run on the server's thread and must not wait. It is
/// destroyed when the connection has gone.
class Channel {
 public:
  virtual ~Channel() = default;

  /// A frame has come, complete and within the server's limit.
  virtual void Take(std::string_view frame, bool is_text) = 0;

  /// The peer takes one more frame.
  virtual void Writable() = 0;
};

/// Makes the channel of a connection; throws Problem to refuse it. Runs on the server's thread.
using ChannelMaker = std::function<std::unique_ptr<Channel>(const Request&, std::shared_ptr<Peer>)>;

struct ChannelRoute {
  std::string path;  ///< such as "/api/consoles/{name}/stream"
  Access access = Access::kPerson;
  bool is_websocket = true;  ///< false: an event stream, text/event-stream
  ChannelMaker make;
};

/// Runs the work on a worker's thread, and then, if `done` is not empty, `done` on the server's
/// thread. Any thread may call it. Throws Problem(503) when too much work waits already.
class Workers {
 public:
  virtual ~Workers() = default;
  virtual void Run(std::function<void()> work, std::function<void()> done = {}) = 0;

  /// Runs this on the server's thread soon.
  virtual void OnServer(std::function<void()> work) = 0;
};

}  // namespace zevweb
