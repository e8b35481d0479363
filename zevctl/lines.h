// Consoles behind a serial port, a program, ssh or IPMI: what the line server is told of them.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace zevctl {

/// What stands behind a console that is not reached over the network itself.
enum class LineKind { kSerial, kExec, kSsh, kIpmi };

/// A console that the line server (ser2net, the service zevd-lines) brings to a port of its own.
struct Line {
  std::string name;  ///< The console's name.
  LineKind kind = LineKind::kSerial;
  /// "/dev/ttyUSB0,115200n8", "virsh console vm1", "admin@ts1" or "admin@bmc-db1".
  std::string target;
  std::string secret_file;  ///< Holds the password of an ipmi line in its first line.
  std::uint16_t port = 0;   ///< On kLinesAddress.
};

/// The address of this machine where the lines listen, and nothing else.
inline constexpr char kLinesAddress[] = "127.65.0.1";

/// The port of the first line.
inline constexpr std::uint16_t kFirstLinePort = 10001;

/// The text of config/lines.yaml: each of `lines` must be without mistakes. It holds the passwords
/// of ipmi lines, so nobody but the daemon's user may read it.
/// @throws std::runtime_error when a password's file has become unreadable.
std::string LinesYaml(const std::vector<Line>& lines);

/// What lines.yaml says of each line, by its port.
using LineBlocks = std::map<std::string, std::string>;
LineBlocks BlocksOf(const std::string& yaml);

/// What is wrong with a line and what mends it; empty when nothing is.
std::string LineMistake(const Line& line);

/// Whether the packet filter keeps everybody but the daemon away from the lines.
enum class FilterState { kThere, kMissing, kUnknown };

/// Asks nft; kUnknown where the caller may not ask or nft cannot be run.
FilterState LinesFilter();

}  // namespace zevctl
