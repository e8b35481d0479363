#include "web_live.h"

#include <utility>

#include "web_answer.h"
#include "web_events.h"
#include "web_journals.h"
#include "web_query.h"
#include "web_replay.h"
#include "web_viewer.h"

namespace zevweb {

namespace {

// A browser that connects again asks as it did at first, and adds where the stream broke off.
std::optional<journal::Position> EventsStart(const Request& request) {
  const WebQuery query(request.query, {"from"});
  const auto parameter = query.Text("from");
  const bool goes_on = !request.last_event_id.empty();
  if (!goes_on && !parameter) return {};
  const auto from = journal::ParsePosition(goes_on ? request.last_event_id : *parameter);
  if (from) return from;
  throw Problem(400,
                std::string(goes_on ? "the header \"Last-Event-ID\"" : "the parameter \"from\"") +
                    " is no position; give the id of an event");
}

}  // namespace

// What the threads tell is dealt with on the server's thread, and only as long as this exists.
struct Live::Parts {
  Parts(const LiveSettings& settings, Workers& workers)
      : journals(settings.journal),
        reader(settings.journal,
               [this, &workers, alive = std::weak_ptr(alive)](WebNews news) {
                 const auto told = std::make_shared<WebNews>(std::move(news));
                 workers.OnServer([this, alive, told] {
                   if (!alive.expired()) tails.Take(std::move(*told));
                 });
               }),
        tails(reader),
        shared{settings.station, reader, attaches, workers} {}

  std::shared_ptr<char> alive = std::make_shared<char>();
  WebJournals journals;
  WebReader reader;
  WebTails tails;
  WebAttaches attaches;
  WebParts shared;
};

Live::Live(const LiveSettings& settings, Workers& workers)
    : parts_(std::make_unique<Parts>(settings, workers)) {}

Live::~Live() = default;

void Live::AddRoutes(std::vector<Route>* routes) {
  Parts& parts = *parts_;
  const auto add = [&](const char* path, Handler handler) {
    routes->push_back({"GET", path, Access::kReader, Guarded(std::move(handler))});
  };
  add("/api/consoles/{name}/replay/screen",
      [&](const Request& request) { return ShowReplayScreen(parts.journals, request); });
  add("/api/consoles/{name}/replay/records",
      [&](const Request& request) { return ShowReplayRecords(parts.journals, request); });
}

void Live::AddChannels(std::vector<ChannelRoute>* channels) {
  Parts& parts = *parts_;
  ChannelRoute stream;
  stream.path = "/api/consoles/{name}/stream";
  stream.access = Access::kReader;
  stream.make = [&parts](const Request& request, std::shared_ptr<Peer> peer) {
    return std::make_unique<WebViewer>(parts.shared, parts.tails, request.caller,
                                       ReadConsoleName(request), ReadStart(request),
                                       std::move(peer));
  };
  channels->push_back(std::move(stream));
  ChannelRoute events;
  events.path = "/api/events";
  events.access = Access::kReader;
  events.is_websocket = false;
  events.make = [&parts](const Request& request, std::shared_ptr<Peer> peer) {
    return std::make_unique<WebEvents>(parts.reader, parts.tails, parts.shared.workers,
                                       EventsStart(request), std::move(peer));
  };
  channels->push_back(std::move(events));
}

}  // namespace zevweb
