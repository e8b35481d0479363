#include "attach_history.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <deque>
#include <utility>

#include "attach_seam.h"
#include "exit_status.h"
#include "journal/journal_fields.h"
#include "journal_lines.h"
#include "journal_open.h"
#include "journal_text.h"
#include "local_only.h"
#include "name_match.h"
#include "output.h"
#include "standard_output.h"
#include "telnet.h"

namespace zevctl {

namespace {

using Clock = std::chrono::steady_clock;
using journal::Kind;
using journal::KindBit;
using journal::Position;
using journal::Query;

constexpr Milliseconds kJournalLag{1000};  // ten times as long as the daemon lets records wait
constexpr Milliseconds kSeamLimit{500};
constexpr Milliseconds kLook{20};
constexpr size_t kMostBytes = 4 << 20;

constexpr journal::Kinds kShownKinds = kInterruptions | KindBit(Kind::kOutput) |
                                       KindBit(Kind::kConnected) | KindBit(Kind::kDisabled) |
                                       KindBit(Kind::kEnabled) | KindBit(Kind::kClockStep);

int64_t WallTime() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

// Text without the commands of telnet, as a session shows it.
std::string SessionText(const std::string& received) {
  OfferFilter offers;
  TelnetStream telnet;
  telnet.Receive(offers.Pass(received));
  return telnet.TakeText();
}

// Takes what comes within the time. False at the end of the session: then nothing more will come.
bool Receive(Opening& opening, Milliseconds limit) {
  std::array<char, 65536> chunk{};
  if (!WaitFor(opening.socket.fd(), POLLIN, limit)) return true;
  const size_t count = opening.socket.Receive(chunk, limit);
  opening.received.append(chunk.data(), count);
  return count > 0;
}

}  // namespace

AttachHistory::AttachHistory(const Settings& settings, std::string directory, size_t lines)
    : settings_(settings), directory_(std::move(directory)), lines_(lines), begun_(WallTime()) {
  try {
    RequireThisHost(settings, "attach --history", "the journal");
    journal_ = OpenJournal(directory_);
  } catch (const Failure& failure) {
    Warn(std::string(failure.what()) + "; the session goes on without a history");
  }
}

AttachHistory::~AttachHistory() = default;

void AttachHistory::Show(const std::string& console, Opening& opening) {
  if (!journal_) return;
  try {
    const auto id = Find(console);
    if (id) return ShowFor(*id, opening);
    Warn("the journal has nothing of " + Printable(console) +
         " yet; the session goes on without a history");
  } catch (const journal::JournalError& error) {
    Warn(std::string(JournalFailure(error, directory_).what()) +
         "; the session goes on without a history");
  } catch (const ReaderGone&) {  // the session will notice it
  }
}

// Whoever has the name now; two consoles of one name are one to the daemon's users.
std::optional<size_t> AttachHistory::Find(const std::string& console) const {
  std::optional<size_t> found;
  for (const journal::Console& known : journal_->consoles()) {
    if (!IsSameName(known.name(), console)) continue;
    if (!found || !known.is_gone) found = known.id;
  }
  return found;
}

void AttachHistory::ShowFor(size_t console, Opening& opening) {
  const auto attached = AwaitAttached(console, opening);
  if (!attached) {
    Warn(
        "the journal has not noted this session, so lines may be missing, or come twice, where "
        "it begins; look at it with \"zevctl history\"");
  }
  const Position place = attached.value_or(journal_->end());
  Pieces pieces = Before(console, place, opening.received.size());
  std::string before;
  for (const Piece& piece : pieces) {
    if (piece.header.kind == Kind::kOutput) before += piece.payload;
  }
  size_t left = AwaitSeam(console, place, before, opening);
  for (auto piece = pieces.rbegin(); piece != pieces.rend() && left > 0; ++piece) {
    if (piece->header.kind != Kind::kOutput) continue;
    const size_t count = std::min(left, piece->payload.size());
    piece->payload.resize(piece->payload.size() - count);
    left -= count;
  }
  opening.shown = Print(console, pieces);
}

// ---- The moment of attaching --------------------------------------------------------------------

std::optional<Position> AttachHistory::AwaitAttached(size_t console, Opening& opening) {
  const auto deadline = Clock::now() + kJournalLag;
  for (bool goes_on = true;;) {
    const auto place = FindAttached(console);
    if (place || !goes_on || Clock::now() >= deadline) return place;
    goes_on = Receive(opening, kLook);
    journal_->Refresh();
  }
}

// The newest record of the user's own; the name is the one that was given, or the real one.
std::optional<Position> AttachHistory::FindAttached(size_t console) const {
  Query query;
  query.consoles = {console};
  query.kinds = KindBit(Kind::kAttached);
  query.since = begun_;
  query.backward = true;
  const std::string user = UserName(settings_);
  const auto cursor = journal_->Read(query);
  std::optional<Position> newest;
  journal::Record record;
  while (cursor->Next(&record)) {
    const journal::FieldReader fields(record.payload);
    const bool is_own = fields.Text(journal::Field::kUser) == user ||
                        fields.Text(journal::Field::kGivenUser) == user;
    if (is_own) return record.position;
    if (!newest) newest = record.position;
  }
  return newest;
}

// How many bytes before the place the session will show by itself.
size_t AttachHistory::AwaitSeam(size_t console, const Position& place, const std::string& before,
                                Opening& opening) {
  const auto deadline = Clock::now() + kSeamLimit;
  for (;;) {
    const bool goes_on = Receive(opening, kLook);
    const std::string received = SessionText(opening.received);
    const auto repeated = RepeatedBytes(received, before, After(console, place));
    if (repeated) return *repeated;
    if (!goes_on || Clock::now() >= deadline) return ProbablyRepeatedBytes(received, before);
    journal_->Refresh();
  }
}

// ---- What was before, and after -----------------------------------------------------------------

// The records before the place with so many lines, and at least so many bytes of output; with the
// text of the output as a session would show it.
AttachHistory::Pieces AttachHistory::Before(size_t console, const Position& place,
                                            size_t bytes) const {
  Query query;
  query.consoles = {console};
  query.with_station = true;
  query.kinds = kShownKinds;
  query.from = place;
  query.backward = true;
  const auto cursor = journal_->Read(query);
  Pieces pieces;
  journal::Record record;
  size_t lines = 0;
  size_t held = 0;
  while ((lines <= lines_ || held < bytes) && held < kMostBytes && cursor->Next(&record)) {
    pieces.push_back({record.header, record.position, std::string(record.payload)});
    if (record.header.kind != Kind::kOutput) {
      ++lines;
      continue;
    }
    lines += static_cast<size_t>(std::count(record.payload.begin(), record.payload.end(), '\n'));
    held += record.payload.size();
  }
  std::reverse(pieces.begin(), pieces.end());
  TelnetStream telnet;
  for (Piece& piece : pieces) {
    if (piece.header.kind != Kind::kOutput) continue;
    telnet.Receive(piece.payload);
    piece.payload = telnet.TakeText();
  }
  return pieces;
}

std::string AttachHistory::After(size_t console, const Position& place) const {
  Query query;
  query.consoles = {console};
  query.kinds = KindBit(Kind::kOutput);
  query.from = place;
  const auto cursor = journal_->Read(query);
  TelnetStream telnet;
  journal::Record record;
  while (cursor->Next(&record)) telnet.Receive(record.payload);
  return telnet.TakeText();
}

// Returns the line in the making, with which the session goes on.
std::string AttachHistory::Print(size_t console, const Pieces& pieces) const {
  std::deque<std::string> shown;
  const auto show = [&](std::string text) {
    shown.push_back(std::move(text));
    if (shown.size() > lines_) shown.pop_front();
  };
  LineAssembler assembler(
      [&](const PrintedLine& line) { show(Harmless(line.text) + (line.is_complete ? "\n" : "")); });
  for (const Piece& piece : pieces) {
    journal::Record record;
    record.header = piece.header;
    record.position = piece.position;
    record.console = console;
    record.payload = piece.payload;
    assembler.Take(record);
    if (piece.header.kind == Kind::kOutput) continue;
    if (!shown.empty() && !shown.back().ends_with('\n')) shown.back() += "\n";
    show("* " + StampText(piece.header.wall) + " " + Harmless(RecordText(record)) + "\n");
  }
  assembler.Finish();
  if (shown.empty()) return "";
  Announce("zevctl: What was printed before, up to here:");
  StandardOutput output;
  for (const std::string& text : shown) output.Add(text);
  output.Flush();
  return shown.back().ends_with('\n') ? "" : shown.back();
}

}  // namespace zevctl
