#include "web_viewer.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

#include "output.h"
#include "web_frames.h"
#include "web_query.h"

namespace zevweb {

namespace {

using zevctl::Json;

constexpr size_t kMostLines = 10'000;
constexpr size_t kMostTexts = 200;   // that wait for a page which does not read
constexpr size_t kLongestName = 64;  // the daemon cuts what is longer
constexpr uint16_t kPolicy = 1008;   // RFC 6455, 7.4.1
constexpr uint16_t kTooBig = 1009;

}  // namespace

WebViewer::WebViewer(const WebParts& parts, WebTails& tails, const Caller& caller,
                     const std::string& console, const WebStart& start, std::shared_ptr<Peer> peer)
    : tails_(tails),
      console_(console),
      peer_(std::move(peer)),
      tail_(tails.Watch(console, this)),
      follow_(tail_, console, start, parts.reader, parts.workers, [this] { Wake(); }),
      typing_(
          parts, caller, console, [this](std::string frame) { Tell(std::move(frame)); },
          [this] { Wake(); }) {}

WebViewer::~WebViewer() {
  tails_.Unwatch(console_, this);
}

void WebViewer::Wake() {
  tails_.WantTicks(this, typing_.is_busy());
  peer_->WantToWrite();
}

// A page that asks and asks and never reads is no page.
void WebViewer::Tell(std::string frame) {
  if (is_closing_) return;
  texts_.push_back(std::move(frame));
  if (texts_.size() > kMostTexts) {
    is_closing_ = true;
    texts_.clear();
    peer_->Close(kPolicy, "too many answers were not read");
  }
  peer_->WantToWrite();
}

void WebViewer::Take(std::string_view frame, bool is_text) {
  if (is_closing_) return;
  if (!is_text && frame.size() > kMostTyped) {
    is_closing_ = true;
    peer_->Close(kTooBig, "send what is typed in smaller pieces");
    return;
  }
  if (!is_text) {
    if (!frame.empty()) typing_.Type(frame);
    return Wake();
  }
  std::string problem;
  const auto request = ParseStreamRequest(frame, &problem);
  if (request) {
    typing_.Take(*request);
  } else {
    Tell(TextFrame("problem", {{"text", problem}}));
  }
  Wake();
}

void WebViewer::ConsoleChanged() {
  follow_.Restart();
  const bool is_known = !tail_.console.empty();
  const std::string problem =
      is_known ? ""
      : tails_.is_readable()
          ? "the journal has nothing of this console yet; attach to see what it prints"
          : tails_.problem();
  std::string start = TextFrame(
      "start", {{"console", zevctl::Utf8(is_known ? tail_.console : console_)},
                {"journal", is_known},
                {"problem", problem.empty() ? Json() : Json(zevctl::Utf8(problem))},
                {"position", is_known ? Json(journal::PositionText(tail_.covered_from)) : Json()}});
  // A second viewer of the console makes the reader tell of it again.
  const std::string state = tail_.console + "\n" + problem + "\n" + std::to_string(tail_.joins);
  if (state == told_) return;
  told_ = state;
  Tell(std::move(start));
}

void WebViewer::Tick() {
  if (tail_.console.empty()) {
    typing_.Tick({});
  } else if (follow_.is_live()) {
    typing_.Tick(follow_.position());
  }
  Wake();
}

// ---- Sending ------------------------------------------------------------------------------------

// The attachment's output and the journal's records take turns, so that neither waits for the
// other's end.
void WebViewer::Writable() {
  if (is_closing_) return;
  is_records_turn_ = !is_records_turn_;
  const bool has_written = WriteText() || (is_records_turn_ && WriteRecord()) || WriteOutput() ||
                           WriteRecord() || WriteText();
  if (has_written) peer_->WantToWrite();
}

bool WebViewer::WriteOutput() {
  const std::string output = typing_.NextOutput();
  if (!output.empty()) peer_->Write(output, false);
  return !output.empty();
}

bool WebViewer::WriteText() {
  for (std::string& remark : follow_.TakeRemarks()) texts_.push_back(std::move(remark));
  if (texts_.empty()) return false;
  const std::string text = std::move(texts_.front());
  texts_.pop_front();
  peer_->Write(text, true);
  return true;
}

// A record may say that what comes next is something else: the attachment's output, or a text.
bool WebViewer::WriteRecord() {
  for (;;) {
    const WebRecordPointer record = follow_.Peek();
    if (!record || !texts_.empty()) return false;
    const WebTyping::Verdict verdict = typing_.Judge(*record);
    if (verdict == WebTyping::Verdict::kHold) return false;
    const bool is_empty = record->is_output() && record->bytes().empty();
    const bool is_shown = verdict == WebTyping::Verdict::kShow && !is_empty;
    if (is_shown) peer_->Write(record->frame, !record->is_output());
    follow_.Advance();
    if (is_shown) return true;
  }
}

// ---- The request --------------------------------------------------------------------------------

WebStart ReadStart(const Request& request) {
  const WebQuery query(request.query, {"last", "from", "skip"});
  WebStart start;
  start.last = query.Number("last", 0, kMostLines);
  start.skip = query.Number("skip", 0, std::numeric_limits<uint32_t>::max());
  const auto from = query.Text("from");
  if (!from) return start;
  start.from = journal::ParsePosition(*from);
  if (!start.from) {
    throw Problem(400,
                  "the parameter \"from\" is no position; give one that a frame of the stream had");
  }
  return start;
}

std::string ReadConsoleName(const Request& request) {
  const std::string& name = request.parts.at(0);
  const bool is_word = std::all_of(name.begin(), name.end(),
                                   [](unsigned char byte) { return byte > ' ' && byte != 0x7F; });
  if (name.empty() || name.size() > kLongestName || !is_word || name == "@@@@") {
    throw Problem(404, "no console can have this name; the list of consoles has the names");
  }
  return name;
}

}  // namespace zevweb
