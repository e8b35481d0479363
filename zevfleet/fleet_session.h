// Shipping over one connection, from finding out what the stream has until the connection is given
// up. Belongs to one thread.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>

#include "fleet_message.h"
#include "fleet_options.h"
#include "fleet_shipped.h"
#include "fleet_source.h"
#include "fleet_stream.h"

namespace zevfleet {

/// What outlives a connection.
struct ShipWork {
  const FleetOptions& options;
  ShippedFile& file;
  ShipSource& source;
  std::function<bool()> is_over;  ///< whether the process is to end
  std::function<void()> be_well;  ///< called once: all is in the stream, or it has been going well
  std::function<void(const std::string&)> complain;  ///< called with what is wrong with the file
  bool once = false;      ///< end where the journal ended when shipping began
  bool labelled = false;  ///< messages must not be taken for such as the stream had before
  uint64_t messages = 0;  ///< that have been acknowledged
};

class ShipSession {
 public:
  /// Connects. This and all others throw Setback, journal::JournalError and zevctl::Failure.
  explicit ShipSession(ShipWork& work);

  /// Ships until the work is over. What has been acknowledged is in the file at the end, and at
  /// least about each second before.
  void Run();

 private:
  struct InFlight {
    ShipPlace place;
    uint64_t sequence = 0;  ///< where the stream will have it
    size_t size = 0;
    bool is_acknowledged = false;
  };

  // Where to go on.
  void Begin();
  std::optional<ShipPlace> StoredPlace(const StreamTail& tail);
  std::optional<ShipPlace> CommonPlace(const StreamTail& tail);
  void BeginBehind(const StreamTail& tail, const ShipPlace& stored);
  bool IsCurrent(const Shipped& shipped, const StreamTail& tail,
                 const std::optional<ShipPlace>& stored) const;

  // Sending.
  void Fill();
  bool HasRoom() const;
  bool TakeItem();
  void Send(const ShipItem& item);
  void Publish(const ShipMessage& message);
  void Note(const ShipMessage& message);
  bool LookForMore();

  // Being answered.
  void TakeAnswers();
  bool TakeWhatHasCome();
  void Take(const ShipAnswer& answer);
  int64_t Patience() const;
  void CheckIdle();
  void Drain();
  void BeWell();
  void Save(bool now);

  ShipWork& work_;
  ShipName name_;
  std::set<Topic> topics_;
  ShipStream stream_;
  std::string label_;

  std::deque<InFlight> in_flight_;
  size_t bytes_ = 0;          // in flight
  uint64_t first_token_ = 0;  // of those in flight
  uint64_t sequence_ = 0;     // of the last message, when all in flight have arrived

  std::optional<journal::Position> until_;
  bool has_more_ = true;
  std::optional<ShipPlace> taken_;         // how far the journal has been read
  std::optional<ShipPlace> last_message_;  // that of the stream's last message
  std::optional<Shipped> acknowledged_;
  std::optional<Shipped> saved_;
  int64_t answered_ = 0;  // moments of BootNow()
  int64_t refreshed_ = 0;
  int64_t checked_ = 0;
  int64_t saved_at_ = 0;
  int64_t begun_ = 0;
  bool is_well_ = false;
};

}  // namespace zevfleet
