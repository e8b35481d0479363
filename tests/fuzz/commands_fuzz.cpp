// The command port: lines of management tools, and the bytes that answer them.
//
// An input is lines of commands for a station with a few consoles.
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cmd_mon.h"
#include "cmd_mon_steps.h"
#include "fuzz.h"
#include "lists.h"

using namespace zevd;

namespace {

constexpr size_t kLongestLine = 1023;
constexpr int kMostLines = 40;
constexpr char kManaged[] = "managed";  // a model with a management port

/// A console, as far as answers describe it.
struct Console {
  std::string name;
  bool connected;
  size_t users = 0;
  bool managed = false;
  std::string holder = {};  ///< of its management port
  bool refused = false;
};

/// In the order of answers.
std::vector<Console> Station() {
  return {{"alpha", true, 1},
          {"Beta", true},
          {"gamma", true, 2},
          {"GAMMA", true, 1},
          {"-", true},
          {"delta", false},
          {"omega", false, 0, true, "192.0.2.9", true},
          {"idle", false, 0, true, "", true},
          {"Delta", false, 0, true, "192.0.2.10"}};
}

/// One answer: the header, and the text of an error.
struct Answer {
  int id = 0;
  uint32_t type = kDone;
  uint32_t count = 0;
  std::string text = {};
  bool users_told = false;
  bool is_text = false;  ///< `count` is of lines; the answer's is of bytes
};

Answer Error(int id, const std::string& text) {
  const std::string cut = text.substr(0, 79);
  return {id, kErrorFollows, static_cast<uint32_t>(cut.size() + 1), cut};
}

Answer Unrecognized(int id, const std::string& name) {
  return Error(id, "Unrecognized console \"" + name + "\".");
}

/// The command language and what its commands do to the consoles.
class Model {
 public:
  explicit Model(uint32_t last_count) : last_count_(last_count) {}

  Answer Execute(const std::string& line) {
    size_t at = 0;
    const std::string word = TakeWord(line, &at);
    if (word.empty()) return Remember(Error(0, "No command specified."));
    const int id = IdOf(word);
    if (id == 0) return Remember(Error(0, "Invalid command."));
    const std::string name = TakeWord(line, &at);
    const bool optional = id == kConsoleCommand || id == kMappedPortCommand ||
                          id == kStatusCommand || id == kStatsCommand;
    if (name.empty() && !optional) return Remember(Error(0, "No console specified."));
    if (id == kMsgCommand && at == line.size()) return Remember(Error(0, "No message specified."));
    return Remember(Run(id, name));
  }

  /// The answer had this many bytes.
  void RememberText(uint32_t bytes) { last_count_ = bytes; }

  const std::vector<Console>& consoles() const { return consoles_; }

 private:
  // An answer without a count carries the one of the answer before.
  Answer Remember(Answer answer) {
    if (answer.type == kDone) answer.count = last_count_;
    last_count_ = answer.count;
    return answer;
  }

  // Ends before the character that separates it from the rest.
  static std::string TakeWord(const std::string& line, size_t* at) {
    constexpr const char* kSeparators = " \n\r";
    const size_t begin = std::min(line.find_first_not_of(kSeparators, *at), line.size());
    *at = std::min(line.find_first_of(kSeparators, begin), line.size());
    return line.substr(begin, *at - begin);
  }

  static int IdOf(const std::string& word) {
    constexpr const char* kWords[] = {"console",    "who",    "mapped_port", "clear",
                                      "disable",    "enable", "msg",         "force",
                                      "portholder", "status", "stats",       "reconnect"};
    int id = 0;
    for (const char* known : kWords) {
      ++id;
      if (strcasecmp(word.c_str(), known) == 0) return id;
    }
    return 0;
  }

  static bool Matches(const Console& console, const std::string& name) {
    return strcasecmp(console.name.c_str(), name.c_str()) == 0;
  }

  // The first one on either list, or none.
  Console* Find(bool connected, const std::string& name) {
    for (Console& console : consoles_) {
      if (console.connected == connected && Matches(console, name)) return &console;
    }
    return nullptr;
  }

  Answer Run(int id, const std::string& name) {
    switch (id) {
      case kConsoleCommand:
      case kMappedPortCommand:
        return Count(id, [&](const Console& console) {
          return name.empty() || Matches(console, name) ? 1U : 0U;
        });
      case kStatusCommand:
        return Text(Count(id, [&](const Console& console) {
          return name.empty() || Matches(console, name) ? 1U : 0U;
        }));
      case kStatsCommand:
        return Text({id, kRecordsFollow, 1});
      case kWhoCommand:
        return Who(name);
      case kPortHolderCommand:
        return PortHolder(name);
      case kMsgCommand:
        return Message(name);
      default:
        return Control(id, name);
    }
  }

  static Answer Text(Answer answer) {
    answer.is_text = true;
    return answer;
  }

  template <typename Amount>
  Answer Count(int id, Amount amount) {
    Answer answer{id, kRecordsFollow};
    for (const Console& console : consoles_) answer.count += amount(console);
    return answer;
  }

  // The first connected console of the name that nobody uses ends the search of these.
  Answer Who(const std::string& name) {
    bool ended = false;
    return Count(kWhoCommand, [&](const Console& console) -> uint32_t {
      if (!Matches(console, name)) return 0;
      if (!console.connected) return console.managed && console.refused ? 1 : 0;
      ended = ended || console.users == 0;
      return ended ? 0 : static_cast<uint32_t>(console.users);
    });
  }

  Answer PortHolder(const std::string& name) {
    const Console* held = Find(false, name);
    if (held != nullptr) {
      if (!held->managed) return Error(kPortHolderCommand, "Not a Pellox console.");
      if (!held->holder.empty()) return {kPortHolderCommand, kRecordsFollow, 1};
      return Error(kPortHolderCommand,
                   "Unable to connect to remote host, possibly bad port number.");
    }
    bool ended = false;
    const Answer answer = Count(kPortHolderCommand, [&](const Console& console) {
      const bool counts = !ended && console.connected && Matches(console, name);
      ended = ended || (counts && console.users == 0);
      return counts ? 1U : 0U;
    });
    return answer.count == 0 ? Unrecognized(kPortHolderCommand, name) : answer;
  }

  Answer Message(const std::string& name) {
    Answer answer{kMsgCommand};
    bool found = name == "-";
    for (const Console& console : consoles_) {
      if (!console.connected || (name != "-" && !Matches(console, name))) continue;
      found = true;
      answer.users_told = answer.users_told || console.users > 0;
    }
    return found ? answer : Unrecognized(kMsgCommand, name);
  }

  Answer Control(int id, const std::string& name) {
    Answer answer{id};
    if (Find(true, name) == nullptr && Find(false, name) == nullptr) return Unrecognized(id, name);
    const bool all = id == kDisableCommand;
    if (id == kClearCommand || all) answer.users_told = ThrowUsersOff(name, all);
    if (all && Find(true, name) == nullptr) DisableInaccessible(name);
    return answer;
  }

  bool ThrowUsersOff(const std::string& name, bool all) {
    bool told = false;
    for (Console& console : consoles_) {
      if (!console.connected || !Matches(console, name)) continue;
      told = told || console.users > 0;
      console.users = 0;
      if (!all) break;
    }
    return told;
  }

  void DisableInaccessible(const std::string& name) {
    for (Console& console : consoles_) {
      if (Matches(console, name)) console.refused = false;
    }
  }

  std::vector<Console> consoles_ = Station();
  uint32_t last_count_;
};

/// The consoles as the daemon has them, and a tool's connection.
class Real {
 public:
  Real() {
    model_list.m[0] = {kManaged, "PX"};
    model_list.count = 1;
    for (const Console& console : Station()) Add(console);
    node_->sock = tool_.ours();
    node_->connected = 1;
  }
  ~Real() { FreeCommandNode(node_); }
  Real(const Real&) = delete;
  Real& operator=(const Real&) = delete;

  std::string Execute(std::string line, int id) {
    REQUIRE_EQUAL(static_cast<int>(ParseAndExecuteCommand(node_, line.data())), id);
    REQUIRE_EQUAL(SendCommandResponse(node_, id), 0);
    ReleaseRecords();
    return fuzz::ReceiveAvailable(tool_.theirs());
  }

  bool UsersWereTold() const { return !fuzz::ReceiveAvailable(users_.theirs()).empty(); }

 private:
  void Add(const Console& console) {
    ConsoleNode* cnode = console.connected
                             ? fuzz::AddConsole(a_cons_list, console.name.c_str(), -1, kConnected)
                             : fuzz::AddConsole(i_cons_list, console.name.c_str(), -1,
                                                console.refused ? kRefused : kNotConnected,
                                                console.managed ? kManaged : "none");
    CopyText(cnode->pellox_port_holder_ipaddr, console.holder.c_str());
    for (size_t i = 0; i < console.users; ++i) {
      fuzz::AddUser(cnode, "anna", dup(users_.ours()), kShared);
    }
  }

  fuzz::Lists lists_;
  fuzz::SocketPair tool_;
  fuzz::SocketPair users_;  // all of them behind one connection
  CommandNode* node_ = NewCommandNode("tool", "192.0.2.3");
};

size_t RecordSize(int id) {
  switch (id) {
    case kConsoleCommand:
      return kConsolePacketSize;
    case kWhoCommand:
      return kUserPacketSize;
    case kMappedPortCommand:
      return kMappedPortPacketSize;
    default:
      return kPortHolderAddressPacketSize;
  }
}

uint32_t Number(std::string_view bytes) {
  uint32_t number = 0;
  for (size_t i = 4; i-- > 0;) number = number * 256 + static_cast<uint8_t>(bytes[i]);
  return number;
}

void CheckText(const std::string& bytes, const Answer& expected) {
  REQUIRE(bytes.size() >= kHeaderSize);
  const std::string body = bytes.substr(kHeaderSize);
  REQUIRE_EQUAL(Number(bytes), expected.type);
  REQUIRE_EQUAL(Number(std::string_view(bytes).substr(4)), body.size());
  REQUIRE_EQUAL(static_cast<uint32_t>(std::count(body.begin(), body.end(), '\n')), expected.count);
  REQUIRE(body.empty() || (body.front() == '{' && body.ends_with("}\n")));
}

void CheckAnswer(const std::string& bytes, const Answer& expected) {
  REQUIRE(bytes.size() >= kHeaderSize);
  REQUIRE_EQUAL(Number(bytes), expected.type);
  REQUIRE_EQUAL(Number(std::string_view(bytes).substr(4)), expected.count);
  const std::string body = bytes.substr(kHeaderSize);
  if (expected.type == kRecordsFollow) {
    REQUIRE_EQUAL(body.size(), expected.count * RecordSize(expected.id));
  } else {
    const bool error = expected.type == kErrorFollows;
    REQUIRE_EQUAL(body, error ? expected.text + '\0' : "");
  }
}

std::vector<std::string> Lines(std::string_view content) {
  std::vector<std::string> lines;
  while (!content.empty() && lines.size() < kMostLines) {
    const size_t end = content.substr(0, kLongestLine).find('\n');
    const size_t size = end == std::string_view::npos ? kLongestLine : end + 1;
    lines.push_back(fuzz::UpToNul(content.substr(0, size)));
    content.remove_prefix(std::min(size, content.size()));
  }
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Real real;
  Model model(rheader.count);
  for (const std::string& line : Lines({reinterpret_cast<const char*>(data), size})) {
    const Answer expected = model.Execute(line);
    const std::string bytes = real.Execute(line, expected.id);
    if (expected.is_text) {
      CheckText(bytes, expected);
      model.RememberText(static_cast<uint32_t>(bytes.size() - kHeaderSize));
    } else {
      CheckAnswer(bytes, expected);
    }
    REQUIRE_EQUAL(real.UsersWereTold(), expected.users_told);
  }
  return 0;
}
