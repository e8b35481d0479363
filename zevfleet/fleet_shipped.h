// How far the journal has been shipped, in a file that outlives the process. The stream itself
// knows what it has; the file says what lies behind that and was not to be shipped, and whose
// journal it was.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "config_file.h"
#include "descriptor.h"
#include "fleet_message.h"

namespace zevfleet {

struct Shipped {
  ShipPlace place;         ///< all before it is in the stream, or was not to be shipped
  ShipPlace last_message;  ///< that of the stream's last message then; may be before `place`
  uint64_t sequence = 0;   ///< that message's sequence number
  int64_t time = 0;        ///< when that was found; seconds since the epoch

  bool operator==(const Shipped&) const = default;
};

class ShippedFile {
 public:
  /// Makes the directory when it is missing, and takes a lock in it for as long as this lives.
  /// Throws zevctl::Failure, also when another process has the lock.
  explicit ShippedFile(const std::string& directory);

  /// Nothing when there is none, or when it is of another making.
  std::optional<Shipped> Read() const;

  /// The file is on the disk, as it was or as it is to be. Throws zevctl::Failure.
  void Write(const Shipped& shipped) const;

  std::string path() const;

 private:
  zevctl::ConfigDirectory directory_;
  zevctl::Descriptor lock_;
};

}  // namespace zevfleet
