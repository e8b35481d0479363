#include "web_events.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "output.h"
#include "web_frames.h"

namespace zevweb {

namespace {

constexpr size_t kMostHeld = 256 << 10;
constexpr size_t kMostPast = 2000;

std::string Piece(const char* name, const zevctl::Json& data) {
  return std::string("event: ") + name + "\ndata: " + zevctl::JsonText(data) + "\n\n";
}

}  // namespace

struct WebEvents::Past {
  std::vector<WebNews::Event> events;
  std::string problem;
};

// A comment comes first. Whoever has read it misses nothing that happens from then on.
WebEvents::WebEvents(WebReader& reader, WebTails& tails, Workers& workers,
                     std::optional<journal::Position> from, std::shared_ptr<Peer> peer)
    : reader_(reader), tails_(tails), workers_(workers), peer_(std::move(peer)), has_past_(!from) {
  tails_.listeners.insert(this);
  reader_.WatchEvents(true);
  if (from) {
    Stand();
    AskPast(*from);
  } else {
    AwaitReader();
  }
}

WebEvents::~WebEvents() {
  tails_.listeners.erase(this);
  reader_.WatchEvents(false);
}

void WebEvents::Writable() {
  if (pieces_.empty()) return;
  const std::string piece = std::move(pieces_.front());
  pieces_.pop_front();
  held_ -= std::min(held_, piece.size());
  peer_->Write(piece, true);
  if (pieces_.empty() && missed_ > 0) {
    pieces_.push_back(Piece("missed", {{"events", std::exchange(missed_, 0)}}));
  }
  if (!pieces_.empty()) peer_->WantToWrite();
}

void WebEvents::EventsCame(const std::vector<WebNews::Event>& events) {
  for (const WebNews::Event& event : events) {
    if (has_past_) {
      Add(event);
    } else if (waiting_.size() < kMostPast) {
      waiting_.push_back(event);
    } else {
      ++missed_;
    }
  }
  peer_->WantToWrite();
}

// Once something is missing, what follows waits until that has been told.
void WebEvents::Add(const WebNews::Event& event) {
  if (event.next <= last_) return;
  last_ = event.next;
  if (missed_ > 0 || held_ + event.text.size() > kMostHeld) {
    ++missed_;
    return;
  }
  held_ += event.text.size();
  pieces_.push_back(event.text);
}

void WebEvents::Stand() {
  pieces_.emplace_front(": events\n\n");
  peer_->WantToWrite();
}

// The reader runs this once it follows the events.
void WebEvents::AwaitReader() {
  reader_.Run("", [this, alive = std::weak_ptr(alive_), &workers = workers_](
                      const journal::Journal* /*journal*/, std::optional<size_t> /*console*/) {
    workers.OnServer([this, alive] {
      if (!alive.expired()) Stand();
    });
  });
}

void WebEvents::AskPast(const journal::Position& from) {
  reader_.Run("", [this, alive = std::weak_ptr(alive_), &workers = workers_, from](
                      const journal::Journal* journal, std::optional<size_t> /*console*/) {
    const auto past = std::make_shared<Past>();
    try {
      journal::Query query;
      query.kinds = EventKinds();
      query.from = from;
      const auto cursor = journal != nullptr ? journal->Read(query) : nullptr;
      if (!cursor) past->problem = "the journal cannot be read, so events before now are missing";
      journal::Record record;
      while (cursor && past->events.size() < kMostPast && cursor->Next(&record)) {
        past->events.push_back({record.next, EventPiece(*journal, record)});
      }
      if (past->events.size() == kMostPast) {
        past->problem = "there were more events than can be told here; read them in the history";
      }
    } catch (const journal::JournalError& error) {
      past->problem = zevctl::Utf8(zevctl::Printable(error.what()));
    }
    workers.OnServer([this, alive, past] {
      if (alive.expired()) return;
      for (const WebNews::Event& event : past->events) Add(event);
      if (!past->problem.empty()) pieces_.push_back(Piece("problem", {{"text", past->problem}}));
      has_past_ = true;
      EventsCame(std::exchange(waiting_, {}));
    });
  });
}

}  // namespace zevweb
