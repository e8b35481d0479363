// The console configuration file: which consoles a file gives, and what is said about its lines.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz.h"
#include "lists.h"
#include "load.h"
#include "options.h"

using namespace zevd;

namespace {

constexpr char kFile[] = "root/config/zev.conf";
constexpr size_t kLongestPiece = 8191;
constexpr size_t kFieldCount = 13;
constexpr size_t kOsType = 7;

constexpr const char* kMissing[kFieldCount] = {"",
                                               "IP address",
                                               "console port",
                                               "management port",
                                               "user port",
                                               "model number",
                                               "platform name",
                                               "OS type",
                                               "logging flag",
                                               "events flag",
                                               "enable flag",
                                               "authentication flag",
                                               "event file name"};

const std::string kEventSets[] = {"ev", "myevents", std::string(64, 'e')};

/// The fields of one line; fewer than all when the line gives no console.
using Fields = std::vector<std::string>;

std::optional<std::string> TakeField(std::string_view& line, char separator) {
  line.remove_prefix(std::min(line.find_first_not_of(separator), line.size()));
  if (line.empty()) return {};
  const std::string field(line.substr(0, line.find(separator)));
  line.remove_prefix(std::min(field.size() + 1, line.size()));
  return field;
}

Fields Split(std::string_view line) {
  Fields fields;
  while (fields.size() < kFieldCount) {
    const auto field = TakeField(line, fields.size() == kOsType ? '"' : ' ');
    if (!field) break;
    fields.push_back(*field);
  }
  return fields;
}

bool IsSkipped(const Fields& fields) {
  return fields.empty() || fields[0][0] == '#' || fields[0][0] == '\n';
}

bool IsLoaded(const std::string& name) {
  return std::find(std::begin(kEventSets), std::end(kEventSets), name) != std::end(kEventSets);
}

uint16_t Port(const std::string& field) {
  return static_cast<uint16_t>(atoi(field.c_str()) & 0xFFFF);
}

/// What the model expects of a file.
struct Expected {
  std::vector<Fields> consoles;
  std::vector<std::string> messages;
};

void ExpectLine(const std::string& line, size_t number, Expected& expected) {
  const Fields fields = Split(line);
  if (IsSkipped(fields)) return;
  if (fields.size() < kFieldCount) {
    expected.messages.push_back(std::string("LoadConfigFile: Missing ") + kMissing[fields.size()] +
                                " at line " + std::to_string(number) + "\n");
    return;
  }
  if (fields[12] != "\"\"" && !IsLoaded(fields[12])) {
    expected.messages.push_back("LoadConfigFile: Event file " + fields[12] +
                                " not found for console " + fields[0] + "\n");
  }
  expected.consoles.push_back(fields);
}

Expected Expect(std::string_view content) {
  Expected expected;
  size_t number = 0;
  for (const std::string& line : fuzz::Lines(content, kLongestPiece))
    ExpectLine(line, ++number, expected);
  return expected;
}

void CheckText(const char* actual, const std::string& field) {
  REQUIRE_EQUAL(std::string(actual), field.substr(0, kNameSize - 1));
}

void CheckConsole(const ConsoleNode& console, const Fields& fields) {
  CheckText(console.cname, fields[0]);
  CheckText(console.ipaddr, fields[1]);
  REQUIRE_EQUAL(console.cons_port, Port(fields[2]));
  REQUIRE_EQUAL(console.mgmt_port, Port(fields[3]));
  REQUIRE_EQUAL(console.mapped_port, Port(fields[4]));
  CheckText(console.model, fields[5]);
  CheckText(console.pname, fields[6]);
  REQUIRE_EQUAL(console.logging, atoi(fields[8].c_str()));
  REQUIRE_EQUAL(console.events, atoi(fields[9].c_str()));
  REQUIRE_EQUAL(console.enable.load(), atoi(fields[10].c_str()));
  REQUIRE_EQUAL(console.auth, atoi(fields[11].c_str()));
  REQUIRE((console.enode != nullptr) == IsLoaded(fields[12]));
  if (console.enode != nullptr) REQUIRE_EQUAL(std::string(console.enode->name), fields[12]);
  REQUIRE_EQUAL(console.sock.load(), -1);
  REQUIRE_EQUAL(console.status.load(), static_cast<int>(kNotConnected));
}

void CheckConsoles(const ConsoleList& list, const std::vector<Fields>& expected) {
  REQUIRE_EQUAL(static_cast<size_t>(list.count), expected.size());
  size_t index = 0;
  for (const ConsoleNode* console : Nodes(list)) CheckConsole(*console, expected.at(index++));
  REQUIRE_EQUAL(index, expected.size());
}

void AddEventSets() {
  for (const std::string& name : kEventSets) {
    REQUIRE(AddEventSetToList(NewEventSetNode(name.c_str(), NewRegExList("re_list")), ev_list) ==
            0);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const fuzz::Lists lists;
  AddEventSets();
  const std::string_view content(reinterpret_cast<const char*>(data), size);
  fuzz::WriteFile(kFile, content);
  config_file = kFile;
  const Expected expected = Expect(content);
  ConsoleList* list = NewConsoleList("list");
  {
    fuzz::DebugRecorder recorder(0);
    REQUIRE_EQUAL(LoadConfigFile(list), 0);
    REQUIRE_EQUAL(recorder.Output(), fuzz::AsDebugOutput(expected.messages));
  }
  CheckConsoles(*list, expected.consoles);
  FreeConsoleList(list);
  return 0;
}
