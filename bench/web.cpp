// Many who watch consoles in browsers: what each costs the web server, whether somebody who types
// feels it, and the scrape of a large station.
#include <filesystem>
#include <fstream>

#include "context.h"

namespace bench {

namespace {

// Goals.
constexpr double kKibibytesEach = 10;
constexpr double kEchoRatio = 1.10;
constexpr double kScrape = 50;  // milliseconds

constexpr size_t kWatched = 3;
constexpr char kName[] = "bench";

std::string Root() {
  return QOR_ROOT;
}

std::string Beside(const Context& context, const char* program) {
  return std::filesystem::path(context.daemon).replace_filename(program);
}

std::string TextOf(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// What a client makes up for the machine that reads.
std::string NewToken(const Context& context) {
  const std::string output = Root() + "/token";
  const Process client({Beside(context, "zevctl"), "token", "create", kName}, output);
  std::string token;
  WaitUntil("a token", [&] {
    token = TextOf(output);
    return !token.empty() && token.back() == '\n';
  });
  token.pop_back();
  return token;
}

/// The web server beside a station, without TLS: what a library does for that is not ours.
class Web {
 public:
  Web(const Context& context, const Station& station)
      : port_(FreePorts(1).front()), token_(NewToken(context)) {
    std::filesystem::create_directory(Root() + "/web");
    std::ofstream(Root() + "/config/zevweb.toml")
        << "listen = \"127.0.0.1:" << port_ << "\"\ntls = false\nmain_port = " << station.port()
        << "\ndirectory = \"" << Root() << "/web\"\n";
    process_ = std::make_unique<Process>(std::vector<std::string>{Beside(context, "zevweb")},
                                         Root() + "/zevweb.out");
    WaitUntil("the web server", [&] { return Answers(); });
  }

  const Process& process() const { return *process_; }

  /// The whole answer.
  std::string Get(const std::string& path) const {
    const Descriptor sock = Ask(path, "Connection: close\r\n");
    std::string answer;
    try {
      for (;;) answer += ReceiveSome(sock);
    } catch (const ConnectionOver&) {
      return answer;
    }
  }

  /// Somebody who watches the console, from now on.
  Descriptor Watch(size_t console) const {
    User user(Ask("/api/consoles/" + Station::NameOf(console) + "/stream",
                  "Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
                  "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"));
    user.Expect("\"live\"");
    return user.Leave();
  }

 private:
  bool Answers() const {
    process_->CheckRunning();
    try {
      return Get("/readyz").starts_with("HTTP/1.1 200");
    } catch (const std::runtime_error&) {
      return false;
    }
  }

  Descriptor Ask(const std::string& path, const std::string& headers) const {
    const std::string host = "127.0.0.1:" + std::to_string(port_);
    Descriptor sock = ConnectTo("127.0.0.1", port_);
    SendAll(sock, "GET " + path + " HTTP/1.1\r\nHost: " + host + "\r\nOrigin: http://" + host +
                      "\r\nAuthorization: Bearer " + token_ + "\r\n" + headers + "\r\n");
    return sock;
  }

  uint16_t port_;
  std::string token_;
  std::unique_ptr<Process> process_;
};

std::vector<double> TypeSlowly(User& user, size_t keys) {
  std::vector<double> times;
  double next = Now();
  for (size_t i = 0; i < keys; ++i) {
    next += 0.020;
    SleepUntil(next);
    times.push_back(user.Echo());
  }
  return times;
}

struct Figures {
  std::vector<double> keys;       // microseconds, medians
  std::vector<double> processor;  // of the web server, percent of a core
};

Figures Measure(const Context& context, const Web& web, User& user) {
  Figures figures;
  for (size_t i = 0; i < context.repeats(); ++i) {
    const CpuShare share(web.process());
    figures.keys.push_back(Median(TypeSlowly(user, context.Choose<size_t>(100, 25))) * kMicro);
    figures.processor.push_back(share.Percent());
  }
  return figures;
}

// The watched consoles print all the time, whether somebody watches or not.
void MeasureViewers(Context& context) {
  const auto count = context.Choose<size_t>(1'000, 100);
  Farm farm;
  const auto station = NewStation(context, farm, PlainConsoles(kWatched + 1));
  station->KeepJournal(true);
  User user = station->Attach(kWatched);
  const Web web(context, *station);
  farm.PrintEvenly(0, kWatched);
  const Figures alone = Measure(context, web, user);
  const double before = web.process().ResidentKib();
  Sink sink;
  for (size_t i = 0; i < count; ++i) sink.Add(web.Watch(i % kWatched));
  const uint64_t received = sink.received();
  const Figures among = Measure(context, web, user);
  const double each = (web.process().ResidentKib() - before) / static_cast<double>(count);
  if (sink.received() <= received + count * kConsoleLine.size()) {
    throw std::runtime_error("the viewers have not been shown what was printed");
  }
  station->CheckWhole();
  farm.PrintSteadily(0, 0);
  const std::string viewers = std::to_string(count) + " viewers";
  context.results.Add(
      {"web", "memory for each of " + viewers, "KiB", {each}, {}, 1, AtMost(kKibibytesEach)});
  context.results.Add({"web", "keys 20 ms apart, beside " + viewers + " and none", "us", among.keys,
                       alone.keys, 0, RatioAtMost(kEchoRatio)});
  context.results.Add(
      {"web", "web server's processor, " + viewers, "% of a core", among.processor, {}});
}

void MeasureScrape(Context& context) {
  const auto consoles = context.Choose<size_t>(9'000, 500);
  Farm farm;
  auto plans = PlainConsoles(consoles);
  for (ConsolePlan& plan : plans) plan.logging = false;
  const auto station = NewStation(context, farm, std::move(plans));
  const Web web(context, *station);
  std::vector<double> times;
  for (size_t i = 0; i < 2 * context.repeats(); ++i) {
    constexpr double kForgotten = 0.6;  // answers of the daemon are used again for half a second
    SleepUntil(Now() + kForgotten);
    const double start = Now();
    const std::string answer = web.Get("/metrics");
    times.push_back((Now() - start) * kMilli);
    const std::string expected =
        "zevd_consoles{state=\"connected\"} " + std::to_string(consoles) + "\n";
    if (answer.find(expected) == std::string::npos) {
      throw std::runtime_error("the metrics do not count every console");
    }
  }
  station->CheckWhole();
  context.results.Add({"web",
                       "/metrics of " + std::to_string(consoles) + " consoles",
                       "ms",
                       times,
                       {},
                       1,
                       AtMost(kScrape)});
}

}  // namespace

void RunWeb(Context& context) {
  MeasureViewers(context);
  MeasureScrape(context);
}

}  // namespace bench
