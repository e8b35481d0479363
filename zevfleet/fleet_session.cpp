#include "fleet_session.h"

#include <algorithm>
#include <ctime>

#include "exit_status.h"
#include "fleet_clock.h"

namespace zevfleet {

namespace {

using Kind = Setback::Kind;

constexpr size_t kMostMessages = 2048;   // in flight
constexpr size_t kMostBytes = 8 << 20;   // the same
constexpr int kTurn = 128;               // messages that are sent before answers are looked at
constexpr uint64_t kMostForeign = 1000;  // messages of others, or gaps, that are passed at the end

constexpr int64_t kAnswerTime = 10 * kSecond;
constexpr int64_t kRefreshTime = 50 * kMillisecond;
constexpr int64_t kCheckTime = 5 * kSecond;
constexpr int64_t kSaveTime = kSecond;
constexpr int64_t kDrainTime = 2 * kSecond;
constexpr int64_t kTrialTime =
    5 * kSecond;  // a server that is full may still take a message or two

// How long answers are waited for, and how often they are looked at meanwhile: when nothing is in
// flight there are none.
constexpr int64_t kIdlePatience = 50 * kMillisecond;
constexpr int64_t kBusyPatience = 100 * kMillisecond;
constexpr int64_t kBusyNap = kMillisecond;

std::set<Topic> TopicsOf(const NatsOptions& nats) {
  std::set<Topic> topics;
  for (const Topic topic : {Topic::kOut, Topic::kEvent, Topic::kState, Topic::kAudit}) {
    if (std::ranges::find(nats.kinds, TopicWord(topic)) != nats.kinds.end()) topics.insert(topic);
  }
  return topics;
}

}  // namespace

ShipSession::ShipSession(ShipWork& work)
    : work_(work),
      name_{work.options.site, work.options.station},
      topics_(TopicsOf(work.options.nats)),
      stream_(work.options) {}

// ---- Where to go on -----------------------------------------------------------------------------

// Messages of others at the stream's end, and removed ones, are passed.
std::optional<ShipPlace> ShipSession::StoredPlace(const StreamTail& tail) {
  if (tail.is_empty) return {};
  for (uint64_t back = 0; back < kMostForeign && back + tail.first <= tail.last; ++back) {
    const auto place = stream_.PlaceAt(tail.last - back);
    if (place) return place;
  }
  if (tail.last - tail.first < kMostForeign) return {};
  throw Setback(Kind::kRefused,
                "others have sent messages to the stream " + StreamName(name_) + "; remove them");
}

// The last message of a record that the journal still has: all before it are of this journal, none
// behind it is.
std::optional<ShipPlace> ShipSession::CommonPlace(const StreamTail& tail) {
  uint64_t low = tail.first - 1;
  uint64_t high = tail.last;
  std::optional<ShipPlace> common;
  while (low < high) {
    const uint64_t middle = low + (high - low + 1) / 2;
    const auto place = stream_.PlaceAt(middle);
    if (place && !work_.source.Has(*place)) {
      high = middle - 1;
    } else {
      low = middle;
      if (place) common = place;
    }
  }
  return common;
}

// What was not to be shipped is behind the last message. Where messages only live for a time, an
// empty stream says nothing once that has passed.
bool ShipSession::IsCurrent(const Shipped& shipped, const StreamTail& tail,
                            const std::optional<ShipPlace>& stored) const {
  if (shipped.sequence != tail.last || !work_.source.Has(shipped.place)) return false;
  if (stored) return *stored == shipped.last_message;
  return tail.most_age > 0 && time(nullptr) - shipped.time >= tail.most_age / kSecond;
}

void ShipSession::BeginBehind(const StreamTail& tail, const ShipPlace& stored) {
  ShipSource& source = work_.source;
  if (source.Has(stored)) {
    source.Begin(stored, "");
    taken_ = stored;
  } else if (stored.position.station != source.station()) {
    source.Begin(stored, "the journal is another one than before");
  } else {
    label_ = std::to_string(tail.last);
    source.Begin(CommonPlace(tail), "the journal has lost what had been shipped of it");
  }
}

void ShipSession::Begin() {
  const StreamTail tail = stream_.Ask();
  sequence_ = tail.last;
  if (work_.labelled) label_ = std::to_string(tail.last);
  const auto stored = StoredPlace(tail);
  const auto shipped = work_.file.Read();
  ShipSource& source = work_.source;
  last_message_ = stored;
  if (shipped && IsCurrent(*shipped, tail, stored)) {
    source.Begin(shipped->place, "");
    last_message_ = shipped->last_message;
    saved_ = shipped;
  } else if (!stored) {
    source.Begin({}, "");
  } else if (shipped && shipped->place.position.station == source.station() &&
             stored->position.station != source.station()) {
    throw Setback(Kind::kRefused, "another station ships under the name " + name_.station +
                                      "; give it another one, and remove " + work_.file.path());
  } else {
    BeginBehind(tail, *stored);
  }
  if (work_.once) until_ = source.end();
}

// ---- Sending ------------------------------------------------------------------------------------

bool ShipSession::HasRoom() const {
  return in_flight_.size() < kMostMessages && bytes_ < kMostBytes;
}

void ShipSession::Fill() {
  for (int count = 0; count < kTurn && HasRoom(); ++count) {
    has_more_ = TakeItem() || (LookForMore() && TakeItem());
    if (!has_more_) return;
  }
}

// The journal is looked at again where it ended.
bool ShipSession::LookForMore() {
  const int64_t now = BootNow();
  if (until_ || now - refreshed_ < kRefreshTime) return false;
  refreshed_ = now;
  work_.source.Refresh();
  return true;
}

bool ShipSession::TakeItem() {
  ShipItem item;
  if (!work_.source.Next(&item)) return false;
  if (until_ && item.record->position >= *until_) return false;
  Send(item);
  taken_ = work_.source.place();
  return true;
}

void ShipSession::Send(const ShipItem& item) {
  if (item.gap) {
    Publish(GapMessage(name_, *item.gap, *item.record));
    return;
  }
  if (!topics_.contains(TopicOf(item.record->header.kind))) return;
  const ShipMessage message = MessageOf(name_, *item.record, item.console);
  if (stream_.Publish(message, label_, sequence_, first_token_ + in_flight_.size())) {
    Note(message);
  } else {
    Publish(TooLargeMessage(name_, *item.record, item.console));
  }
}

void ShipSession::Publish(const ShipMessage& message) {
  if (!stream_.Publish(message, label_, sequence_, first_token_ + in_flight_.size())) {
    throw Setback(Kind::kRefused, "the server takes no message of " +
                                      std::to_string(message.content().size()) + " bytes");
  }
  Note(message);
}

void ShipSession::Note(const ShipMessage& message) {
  if (in_flight_.empty()) answered_ = BootNow();
  const size_t size = message.content().size() + message.subject.size();
  in_flight_.push_back({message.place, ++sequence_, size, false});
  bytes_ += size;
}

// ---- Being answered -----------------------------------------------------------------------------

void ShipSession::Take(const ShipAnswer& answer) {
  const uint64_t index = answer.token - first_token_;
  if (index >= in_flight_.size()) return;
  if (!answer.refusal.empty()) {
    throw Setback(answer.has_moved ? Kind::kMoved : Kind::kRefused, answer.refusal);
  }
  InFlight& message = in_flight_[index];
  if (answer.sequence != message.sequence) {
    // It was there before, or the server remembers it from then.
    work_.labelled = true;
    throw Setback(Kind::kMoved, "the server takes a message for an earlier one");
  }
  message.is_acknowledged = true;
  answered_ = BootNow();
  while (!in_flight_.empty() && in_flight_.front().is_acknowledged) {
    last_message_ = in_flight_.front().place;
    acknowledged_ = Shipped{*last_message_, *last_message_, in_flight_.front().sequence};
    bytes_ -= in_flight_.front().size;
    in_flight_.pop_front();
    ++first_token_;
    ++work_.messages;
  }
  if (answered_ - begun_ > kTrialTime) BeWell();
}

int64_t ShipSession::Patience() const {
  if (has_more_ && HasRoom()) return 0;
  return in_flight_.empty() ? kIdlePatience : kBusyPatience;
}

bool ShipSession::TakeWhatHasCome() {
  bool any = false;
  while (const auto answer = stream_.TakeAnswer()) {
    Take(*answer);
    any = true;
  }
  return any;
}

void ShipSession::TakeAnswers() {
  const int64_t end = BootNow() + Patience();
  while (!TakeWhatHasCome()) {
    const int64_t now = BootNow();
    if (now >= end) break;
    SleepUntil(in_flight_.empty() ? end : std::min(end, now + kBusyNap));
  }
  if (!in_flight_.empty() && BootNow() - answered_ > kAnswerTime) {
    throw Setback(Kind::kAway, "the server does not acknowledge what it is sent");
  }
}

void ShipSession::BeWell() {
  if (!is_well_) work_.be_well();
  is_well_ = true;
}

// All is in the stream: nothing else would tell that it, or the journal, has been replaced.
void ShipSession::CheckIdle() {
  if (has_more_ || !in_flight_.empty()) return;
  BeWell();
  const int64_t now = BootNow();
  if (now - checked_ < kCheckTime) return;
  checked_ = now;
  if (!work_.source.IsSame()) {
    throw journal::JournalError(journal::JournalError::Cause::kGone, "another journal was begun");
  }
  if (stream_.Ask().last != sequence_) throw Setback(Kind::kMoved, "the stream has been changed");
}

void ShipSession::Save(bool now) {
  const int64_t moment = BootNow();
  if (!now && moment - saved_at_ < kSaveTime) return;
  saved_at_ = moment;
  if (in_flight_.empty() && taken_ && last_message_) {
    acknowledged_ = Shipped{*taken_, *last_message_, sequence_};
  }
  if (!acknowledged_ || (saved_ && saved_->place == acknowledged_->place)) return;
  acknowledged_->time = time(nullptr);
  saved_ = acknowledged_;
  try {
    work_.file.Write(*acknowledged_);
  } catch (const zevctl::Failure& failure) {  // the stream itself knows what it has
    work_.complain(failure.what());
  }
}

// What is under way may still be acknowledged.
void ShipSession::Drain() {
  const int64_t deadline = BootNow() + kDrainTime;
  has_more_ = false;
  while (!in_flight_.empty() && BootNow() < deadline) TakeAnswers();
}

void ShipSession::Run() {
  Begin();
  begun_ = checked_ = BootNow();
  while (!work_.is_over()) {
    Fill();
    TakeAnswers();
    CheckIdle();
    Save(false);
    if (until_ && !has_more_ && in_flight_.empty()) break;
  }
  Drain();
  Save(true);
}

}  // namespace zevfleet
