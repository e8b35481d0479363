// The answers of the command port as bytes: the operators' client reads from them what the daemon
// holds, and from any other bytes what is in the fields' places.
//
// An input is seven lines (name, address, model and platform of a console, name, address and modes
// of its users) and bytes. The console's ports are the first six bytes, in pairs.
#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "answer.h"
#include "command_port.h"
#include "fuzz.h"
#include "lists.h"
#include "query.h"

using namespace zevd;

namespace {

/// What an input says of a console and its users.
struct Facts {
  std::string name, address, model, platform, user, user_address;
  std::vector<int> modes;
  uint16_t port, management_port, mapped_port;
};

std::string Text(std::string_view line, size_t width) {
  return fuzz::UpToNul(line).substr(0, width);
}

uint16_t PortAt(std::string_view bytes, size_t at) {
  const auto byte = [&](size_t i) { return i < bytes.size() ? static_cast<uint8_t>(bytes[i]) : 0; };
  return static_cast<uint16_t>(byte(at) + byte(at + 1) * 256);
}

std::vector<int> Modes(std::string_view letters) {
  std::vector<int> modes;
  for (const char letter : letters.substr(0, 8)) modes.push_back((letter & 3) + 1);
  return modes;
}

Facts TakeFacts(fuzz::Input& input, std::string_view* bytes) {
  Facts facts;
  facts.name = Text(input.TakeLine(), kWireNameWidth);
  facts.address = Text(input.TakeLine(), kWireNameWidth);
  facts.model = Text(input.TakeLine(), kWireNameWidth);
  facts.platform = Text(input.TakeLine(), kWireNameWidth);
  facts.user = Text(input.TakeLine(), kWireUserNameWidth);
  facts.user_address = Text(input.TakeLine(), kWireNameWidth);
  facts.modes = Modes(input.TakeLine());
  *bytes = input.TakeRest();
  facts.port = PortAt(*bytes, 0);
  facts.management_port = PortAt(*bytes, 2);
  facts.mapped_port = PortAt(*bytes, 4);
  return facts;
}

bool IsHidden(const Facts& facts) {
  std::string lower = facts.user;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char byte) { return byte >= 'A' && byte <= 'Z' ? byte + 32 : byte; });
  return lower == "vrq";
}

// The first user who may type decides, or else the last one; a hidden one in mode 4 is not seen.
int ExpectMode(const Facts& facts) {
  int mode = 0;
  for (const int of_user : facts.modes) {
    if (of_user == 4 && IsHidden(facts)) continue;
    mode = of_user;
    if (mode != 1) break;
  }
  return mode;
}

std::string ExpectState(const Facts& facts) {
  if (facts.modes.empty()) return "0";
  const bool hidden = IsHidden(facts) && std::count(facts.modes.begin(), facts.modes.end(), 4) > 0;
  return ExpectMode(facts) == 0 && hidden ? "0" : "1";
}

/// The daemon with that console, and a tool's connection to it.
class Daemon {
 public:
  explicit Daemon(const Facts& facts) {
    ConsoleNode* console =
        fuzz::AddConsole(a_cons_list, facts.name.c_str(), -1, kConnected, facts.model.c_str());
    CopyText(console->ipaddr, facts.address.c_str());
    CopyText(console->pname, facts.platform.c_str());
    console->cons_port = facts.port;
    console->mgmt_port = facts.management_port;
    console->mapped_port = facts.mapped_port;
    console->auth = facts.port;
    for (const int mode : facts.modes) {
      UserNode* user = fuzz::AddUser(console, facts.user.c_str(), -1, mode);
      CopyText(user->ipaddr, facts.user_address.c_str());
    }
    node_->sock = tool_.ours();
  }
  ~Daemon() { FreeCommandNode(node_); }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  /// The records of an answer.
  std::string Answer(void (*command)(const char*), const Facts& facts, CommandId id) {
    command(facts.name.c_str());
    REQUIRE_EQUAL(SendCommandResponse(node_, id), 0);
    ReleaseRecords();
    return fuzz::ReceiveAvailable(tool_.theirs()).substr(kHeaderSize);
  }

 private:
  fuzz::Lists lists_;
  fuzz::SocketPair tool_;
  CommandNode* node_ = NewCommandNode("tool", "192.0.2.3");
};

void CheckConsole(Daemon& daemon, const Facts& facts) {
  const std::string bytes = daemon.Answer(ProcessConsoleCommand, facts, kConsoleCommand);
  REQUIRE_EQUAL(bytes.size(), kConsolePacketSize);
  const zevctl::ConsoleRecord record = zevctl::DecodeConsole(bytes);
  REQUIRE_EQUAL(record.name, facts.name);
  REQUIRE_EQUAL(record.address, facts.address);
  REQUIRE_EQUAL(record.port, facts.port);
  REQUIRE_EQUAL(record.management_port, facts.management_port);
  REQUIRE_EQUAL(record.model, facts.model);
  REQUIRE_EQUAL(record.platform, facts.platform);
  REQUIRE_EQUAL(record.state, ExpectState(facts));
  REQUIRE_EQUAL(record.mode, std::to_string(ExpectMode(facts)));
}

void CheckMappedPort(Daemon& daemon, const Facts& facts) {
  const std::string bytes = daemon.Answer(ProcessMappedPortCommand, facts, kMappedPortCommand);
  REQUIRE_EQUAL(bytes.size(), kMappedPortPacketSize);
  const zevctl::MappedPortRecord record = zevctl::DecodeMappedPort(bytes);
  REQUIRE_EQUAL(record.name, facts.name);
  REQUIRE_EQUAL(record.address, facts.address);
  REQUIRE_EQUAL(record.port, facts.port);
  REQUIRE_EQUAL(record.mapped_port, facts.mapped_port);
  REQUIRE_EQUAL(record.authentication, facts.port);
}

void CheckUsers(Daemon& daemon, const Facts& facts) {
  const std::string bytes = daemon.Answer(ProcessWhoCommand, facts, kWhoCommand);
  const size_t seen = IsHidden(facts) ? 0 : facts.modes.size();
  REQUIRE_EQUAL(bytes.size(), seen * kUserPacketSize);
  for (size_t i = 0; i < seen; ++i) {
    const zevctl::UserRecord record =
        zevctl::DecodeUser(std::span(bytes).subspan(i * kUserPacketSize, kUserPacketSize));
    REQUIRE_EQUAL(record.name, facts.user);
    REQUIRE_EQUAL(record.address, facts.user_address);
    REQUIRE_EQUAL(record.mode, std::to_string(facts.modes[i]));
  }
}

// Takes bytes that are no answer of the daemon's.
void CheckAnyBytes(std::string_view bytes) {
  std::string packet(bytes.substr(0, kConsolePacketSize));
  packet.resize(kConsolePacketSize);
  const auto text = [&](size_t at, size_t width) {
    return fuzz::UpToNul(std::string_view(packet).substr(at, width));
  };
  const zevctl::ConsoleRecord console = zevctl::DecodeConsole(packet);
  REQUIRE_EQUAL(console.name, text(0, 64));
  REQUIRE_EQUAL(console.address, text(64, 64));
  REQUIRE_EQUAL(console.port, PortAt(packet, 128));
  REQUIRE_EQUAL(console.management_port, PortAt(packet, 130));
  REQUIRE_EQUAL(console.model, text(132, 64));
  REQUIRE_EQUAL(console.platform, text(196, 64));
  REQUIRE_EQUAL(console.state, text(260, 2));
  REQUIRE_EQUAL(console.mode, text(262, 2));
  const zevctl::UserRecord user = zevctl::DecodeUser(std::span(packet).first(kUserPacketSize));
  REQUIRE_EQUAL(user.name, text(0, 32));
  REQUIRE_EQUAL(user.address, text(32, 64));
  REQUIRE_EQUAL(user.mode, text(96, 2));
  const zevctl::MappedPortRecord mapped =
      zevctl::DecodeMappedPort(std::span(packet).first(kMappedPortPacketSize));
  REQUIRE_EQUAL(mapped.name, text(0, 64));
  REQUIRE_EQUAL(mapped.address, text(64, 64));
  REQUIRE_EQUAL(mapped.port, PortAt(packet, 128));
  REQUIRE_EQUAL(mapped.mapped_port, PortAt(packet, 130));
  REQUIRE_EQUAL(mapped.authentication, PortAt(packet, 132));
  REQUIRE_EQUAL(zevctl::DecodePortHolder(std::span(packet).first(kPortHolderAddressPacketSize)),
                text(0, 64));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  std::string_view bytes;
  const Facts facts = TakeFacts(input, &bytes);
  Daemon daemon(facts);
  CheckConsole(daemon, facts);
  CheckMappedPort(daemon, facts);
  CheckUsers(daemon, facts);
  CheckAnyBytes(bytes);
  return 0;
}
