// Shipping the journal for as long as it is wanted: over one connection after the other, while
// there is a journal. Belongs to one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "fleet_options.h"
#include "fleet_session.h"
#include "fleet_shipped.h"
#include "fleet_source.h"

namespace zevfleet {

class Shipper {
 public:
  /// `is_over` tells when the process is to end; `once` ends where the journal ends now, or at the
  /// first setback. Throws zevctl::Failure when the state directory cannot be used.
  Shipper(const FleetOptions& options, const std::string& journal, bool once,
          std::function<bool()> is_over);

  /// Returns how many messages have been acknowledged. Throws zevctl::Failure for what will not
  /// mend by itself, and with `once` for every setback.
  uint64_t Run();

 private:
  void Try();
  void OpenSource();
  void TakeSetback(const Setback& setback);
  void Recovered();
  void Complain(const std::string& text);
  void TellOnce(const std::string& text);
  void Pause() const;

  const FleetOptions& options_;
  std::string journal_;
  bool once_;
  std::function<bool()> is_over_;
  ShippedFile file_;
  std::unique_ptr<ShipSource> source_;
  bool labelled_ = false;
  uint64_t messages_ = 0;
  int failures_ = 0;  // in a row
  std::string told_;
  std::string complaint_;
};

}  // namespace zevfleet
