// One connection to NATS, and the stream that keeps this station's messages.
//
// A message is accepted only directly behind the one before it (its header names the sequence
// number that the stream must have): whatever is lost on the way, refused, or sent a second time,
// the stream has all messages up to its last one, each once and in their order. That is why each
// station has a stream of its own. A connection that has broken is given up: nothing is sent again
// on a new one before the stream has been asked what it has. Calls that do not return end the
// process.
//
// Belongs to one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "fleet_library_watch.h"
#include "fleet_message.h"
#include "fleet_options.h"

namespace zevfleet {

/// Why it does not go on for now; trying again is all that can be done.
class Setback : public std::runtime_error {
 public:
  enum class Kind {
    kJournal,  ///< there is no journal, or it cannot be read
    kAway,     ///< no server can be reached, or it does not answer
    kRefused,  ///< the server does not take what it is sent
    kMoved,    ///< the stream is not as it was: it must be asked again
  };
  Setback(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}
  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

/// What the stream has.
struct StreamTail {
  uint64_t first = 0;    ///< sequence number of the first message
  uint64_t last = 0;     ///< of the last one; counts on when messages are removed
  bool is_empty = true;  ///< there are no messages
  int64_t most_age = 0;  ///< how long it keeps messages, in nanoseconds; 0: for ever
};

/// What the server says of a message.
struct ShipAnswer {
  uint64_t token = 0;      ///< that of the message
  uint64_t sequence = 0;   ///< where the stream has it
  std::string refusal;     ///< why the stream does not have it; empty if it does
  bool has_moved = false;  ///< of a refusal: the message does not follow the stream's last one
};

/// The name of a station's stream: SITE+STATION.
std::string StreamName(const ShipName& name);

class ShipStream {
 public:
  /// Connects. Throws Setback, and zevctl::Failure when a file of the settings cannot be used.
  explicit ShipStream(const FleetOptions& options);
  ~ShipStream();
  ShipStream(const ShipStream&) = delete;
  ShipStream& operator=(const ShipStream&) = delete;

  /// Makes the stream when it is missing. Throws Setback, and zevctl::Failure when there is one
  /// that was made differently.
  StreamTail Ask();

  /// The place after a message of the stream; nothing when it is gone or not of this program.
  /// Throws Setback.
  std::optional<ShipPlace> PlaceAt(uint64_t sequence);

  /// Sends a message, to be stored behind the one with that sequence number; the answer will have
  /// the token. `label`: MessageId(). False when it is larger than the server takes. Throws
  /// Setback.
  bool Publish(const ShipMessage& message, const std::string& label, uint64_t behind,
               uint64_t token);

  /// The next answer, if one has come. Throws Setback.
  std::optional<ShipAnswer> TakeAnswer();

 private:
  struct Nats;
  void Make();
  void CheckErrors();

  FleetOptions options_;
  ShipName name_;
  std::string stream_;
  LibraryWatch watch_;
  std::unique_ptr<Nats> nats_;
};

}  // namespace zevfleet
