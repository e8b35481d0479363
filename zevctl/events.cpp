// "zevctl events": receives the events that the daemon posts, at a station without another event
// manager.
//
// When its event manager takes no events, the daemon waits at first and then drops them. So what
// arrives is always taken at once, whatever becomes of the output: lines that standard output does
// not take wait in a queue, and when that is full, events are dropped here and counted.
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>

#include <csignal>
#include <list>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "arguments.h"
#include "event_line.h"
#include "event_pattern.h"
#include "event_socket.h"
#include "local_only.h"
#include "output.h"
#include "program.h"
#include "standard_output.h"

namespace zevctl {

namespace {

constexpr size_t kMostQueued = 8'000'000;  // bytes
constexpr size_t kReceiveSize = 65536;
constexpr size_t kShownOfBadLine = 60;

struct EventsOptions {
  std::string socket = kStationRoot + "/run/jix.sock";
  std::optional<int> priority;
};

/// SIGINT, SIGTERM and SIGHUP as something that poll() can wait for.
Descriptor EndSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, number);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return Descriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

/// The lines on their way to standard output.
class Output {
 public:
  void Add(const std::string& line) {
    if (output_.queued() + line.size() > kMostQueued) {
      ++dropped_;
    } else {
      output_.Add(line);
    }
  }

  bool waits() const { return output_.queued() > 0; }

  void WriteSome() {
    output_.WriteSome();
    if (waits() || dropped_ == 0) return;
    Warn(std::to_string(dropped_) +
         " events are missing here: the output was not read in time; write it to a file, or take "
         "fewer with --priority");
    dropped_ = 0;
  }

 private:
  StandardOutput output_;
  size_t dropped_ = 0;
};

struct Connection {
  explicit Connection(Descriptor accepted) : socket(std::move(accepted)) {}

  Descriptor socket;
  LineCutter lines;
};

class Collector {
 public:
  Collector(const Settings& settings, const EventsOptions& options)
      : settings_(settings), options_(options), socket_(options.socket) {}

  /// Returns when a signal asks for it.
  void Run();

 private:
  enum Fixed { kSignals, kListener, kOutput, kFixedCount };

  std::vector<pollfd> Awaited() const;
  void TakeConnections();
  void ReceiveFrom(const std::vector<pollfd>& awaited);
  bool Receive(Connection& connection);
  void Handle(std::string_view line);
  void NamePattern(Event& event);

  const Settings& settings_;
  const EventsOptions& options_;
  Descriptor signals_ = EndSignals();
  EventSocket socket_;
  bool full_ = false;  // no more connections until one has ended
  std::list<Connection> connections_;
  PatternNames patterns_{kStationRoot};
  EventColumns columns_;
  Output output_;
};

void Collector::Run() {
  Announce("Waiting for events on " + Printable(options_.socket) + ".");
  for (;;) {
    std::vector<pollfd> awaited = Awaited();
    if (poll(awaited.data(), awaited.size(), -1) < 0) continue;
    if (awaited[kSignals].revents != 0) return;
    if (ReaderHasGone(awaited[kOutput].revents)) throw ReaderGone();
    ReceiveFrom(awaited);
    if (awaited[kListener].revents != 0) TakeConnections();
    if ((awaited[kOutput].revents & POLLOUT) != 0) output_.WriteSome();
  }
}

std::vector<pollfd> Collector::Awaited() const {
  std::vector<pollfd> awaited(kFixedCount);
  awaited[kSignals] = {signals_.get(), POLLIN, 0};
  awaited[kListener] = {full_ ? -1 : socket_.fd(), POLLIN, 0};
  awaited[kOutput] = {STDOUT_FILENO, static_cast<short>(output_.waits() ? POLLOUT : 0), 0};
  for (const Connection& connection : connections_) {
    awaited.push_back({connection.socket.get(), POLLIN, 0});
  }
  return awaited;
}

void Collector::TakeConnections() {
  while (Descriptor accepted = socket_.Accept(full_)) {
    connections_.emplace_back(std::move(accepted));
  }
}

void Collector::ReceiveFrom(const std::vector<pollfd>& awaited) {
  auto connection = connections_.begin();
  for (size_t i = kFixedCount; i < awaited.size(); ++i) {
    const bool ended = awaited[i].revents != 0 && !Receive(*connection);
    if (ended) full_ = false;
    connection = ended ? connections_.erase(connection) : std::next(connection);
  }
}

// False at the end of the connection.
bool Collector::Receive(Connection& connection) {
  char bytes[kReceiveSize];
  const auto handle = [&](std::string_view line) { Handle(line); };
  const ssize_t count = recv(connection.socket.get(), bytes, sizeof bytes, 0);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return true;
  if (count <= 0) {
    connection.lines.Finish(handle);
    return false;
  }
  connection.lines.Add({bytes, static_cast<size_t>(count)}, handle, [] {
    Warn("a line of more than " + std::to_string(LineCutter::kLongestLine) +
         " bytes came in and was dropped; the daemon sends no such lines, so see what else "
         "writes to the socket");
  });
  return true;
}

void Collector::Handle(std::string_view line) {
  auto event = ParseEvent(line);
  if (!event) {
    Warn("this is no event and is left out: \"" + Printable(line.substr(0, kShownOfBadLine)) +
         "\"; see what else writes to the socket");
    return;
  }
  if (options_.priority && !HasPriority(*event, *options_.priority)) return;
  NamePattern(*event);
  output_.Add((settings_.json ? EventAsJson(*event) : columns_.Line(*event)) + "\n");
}

void Collector::NamePattern(Event& event) {
  const auto console = ConsoleOf(event);
  if (!console) return;
  const auto priority = event.find("priority");
  const bool has_priority = priority != event.end() && priority->is_number_integer();
  AddOrigin(event, *console,
            has_priority
                ? patterns_.Find(*console, priority->get<int>(), MessageOf(event).value_or(""))
                : std::nullopt);
}

ExitStatus RunEvents(const Settings& settings, const EventsOptions& options) {
  RequireThisHost(settings, "events", "the event socket");
  Collector collector(settings, options);
  try {
    collector.Run();
  } catch (const ReaderGone&) {
    return ExitStatus::kOk;
  }
  return ExitStatus::kOk;
}

}  // namespace

void AddEventsCommand(Command& app, Program& program) {
  const auto options = std::make_shared<EventsOptions>();
  Command command =
      app.AddCommand("events", "Receive the station's events and print them as they come");
  command.AddOption("--socket", options->socket, "Socket to which the daemon posts events")
      .ShowDefault();
  command.AddOption("--priority", options->priority, "Only events of this priority and above");
  command.SetAction(program, [options, &program] { return RunEvents(program.settings, *options); });
}

}  // namespace zevctl
