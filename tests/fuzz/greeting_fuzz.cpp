// What a console sends right after the connection: its telnet offers are kept and taken off the
// stream, and on a management port a refusal is recognised, with the address of its holder.
//
// An input is a line with the options and the bytes. Options: 'm' a management port, 'f' the
// session is to be taken over.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cons_conn.h"
#include "cons_conn_steps.h"
#include "fuzz.h"
#include "lists.h"

using namespace zevd;

namespace {

constexpr size_t kPeeked = 299;  // and a terminator
constexpr char kRefusalStart[] = "~NET-E-";
constexpr char kRefusalText[] = "Session is already open";

// What the daemon sees as a text, in lines without the empty ones.
std::vector<std::string> Lines(std::string_view bytes) {
  std::vector<std::string> lines;
  std::string line;
  for (const char byte : fuzz::UpToNul(bytes.substr(0, kPeeked)) + "\n") {
    if (byte != '\r' && byte != '\n') {
      line += byte;
    } else if (!line.empty()) {
      lines.push_back(line);
      line.clear();
    }
  }
  return lines;
}

bool IsRefusal(const std::string& line) {
  return line.starts_with(kRefusalStart) && line.find(kRefusalText) != std::string::npos;
}

bool HoldsRefusal(std::string_view bytes) {
  const std::vector<std::string> lines = Lines(bytes);
  return std::any_of(lines.begin(), lines.end(), IsRefusal);
}

// The text from the eleventh word to the next comma.
std::string Holder(std::string line) {
  for (int word = 0; word < 10; ++word) {
    line.erase(0, line.find_first_not_of(' '));
    if (line.empty()) return "";
    line.erase(0, line.find(' '));
  }
  line.erase(0, line.find_first_not_of(' '));
  return line.substr(0, line.find(','));
}

std::string TelnetStart(std::string_view bytes) {
  std::string commands;
  int state = 0;
  for (const char byte : bytes.substr(0, kNameSize - 1)) {
    const auto code = static_cast<uint8_t>(byte);
    if ((state == 0 && code != 255) || (state == 1 && code < 128)) break;
    const bool wants_option = state == 1 && code >= 251 && code <= 254;
    state = state == 0 ? 1 : wants_option ? 2 : 0;
    commands += byte;
  }
  return commands;
}

void CheckRefused(const ConsoleNode& console, std::string_view bytes) {
  REQUIRE_EQUAL(console.status.load(), static_cast<int>(kRefused));
  REQUIRE_EQUAL(console.sock.load(), -1);
  REQUIRE_EQUAL(console.lfca_time, fuzz::kNow);
  // The address is looked for where the first line was.
  const std::string text = fuzz::UpToNul(bytes.substr(0, kPeeked));
  const std::string first = text.substr(0, text.find_first_of("\r\n", text.find(Lines(text)[0])));
  REQUIRE_EQUAL(std::string(console.pellox_port_holder_ipaddr),
                Holder(first).substr(0, kNameSize - 1));
}

void CheckConnected(ConsoleNode& console, std::string_view bytes, const std::string& sent,
                    bool forced) {
  REQUIRE_EQUAL(console.status.load(), static_cast<int>(kConnected));
  const std::string commands = TelnetStart(bytes);
  REQUIRE_EQUAL(std::string(console.telnet_cmd), fuzz::UpToNul(commands));
  REQUIRE_EQUAL(fuzz::ReceiveAvailable(console.sock), bytes.substr(commands.size()));
  REQUIRE_EQUAL(sent, std::string(forced ? "YES\n" : ""));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const fuzz::Lists lists;
  fuzz::Input input(data, size);
  const std::string_view options = input.TakeLine();
  const std::string_view bytes = input.TakeRest();
  if (bytes.empty()) return 0;
  fuzz::SocketPair pair;
  const int peer = pair.theirs();
  fuzz::Arrivals nothing_more(pair, {}, false);
  ConsoleNode* console = fuzz::AddConsole(i_cons_list, "box", pair.ReleaseOurs(), kInProgress);
  console->check_for_NET_E_msg = fuzz::Has(options, 'm') ? 1 : 0;
  console->force = fuzz::Has(options, 'f') ? 1 : 0;
  console->lsca_time = fuzz::kNow - 2;
  console->log_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  fuzz::SendAll(peer, bytes);

  const bool refusal = HoldsRefusal(bytes);
  const bool forced = refusal && fuzz::Has(options, 'f');
  const bool refused = refusal && !forced;
  REQUIRE_EQUAL(UpdateConnectionStatus(), refused ? 0 : 1);
  if (refused) {
    CheckRefused(*console, bytes);
  } else {
    CheckConnected(*console, bytes, nothing_more.TakeSent(), forced);
  }
  if (console->log_fd != -1) close(console->log_fd);
  return 0;
}
