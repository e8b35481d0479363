// Console configuration files, and lists that are filled from them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "console.h"
#include "daemon_support.h"
#include "event_set.h"
#include "file_support.h"

namespace test {

using namespace zevd;

inline constexpr char kConfig[] = "root/config/zev.conf";

/// A line of a console at 127.0.0.1 without events.
std::string ConfigLine(const std::string& name, int port, const std::string& flags = "0 0 1 0");

/// An event set without patterns on ev_list.
EventSetNode* AddEventSet(const char* name);

/// A console with that console port.
ConsoleNode* AddConsoleAt(ConsoleList* list, const char* name, uint16_t port);

/// Loads files into a list that belongs to the test.
class LoadTest : public DaemonTest {
 protected:
  LoadTest();
  ~LoadTest() override;

  int Load(std::string_view content);

  StationRoot root_;
  ConsoleList list_;
};

}  // namespace test
