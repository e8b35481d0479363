// The station's event files, and the sets that are made from them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "file_support.h"
#include "relay_support.h"

namespace test {

inline constexpr char kEventDirectory[] = "root/events";

/// A station with an empty directory of event files.
class EventSetTest : public RelayTest {
 protected:
  EventSetTest();

  static void WriteEvents(const std::string& name, std::string_view content);

  /// Makes an entry that exists and cannot be opened.
  static void MakeUnreadable(const std::string& name);

  static void RemoveEvents();

  /// The names of the sets on ev_list, in order.
  static std::vector<std::string> SetNames();

  /// How many patterns a set of ev_list has.
  static int Patterns(const char* set);

  StationRoot root_;
};

}  // namespace test
