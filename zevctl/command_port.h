// The client's side of the command port: commands out, records in.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "login.h"
#include "settings.h"

namespace zevctl {

struct ConsoleRecord {
  std::string name;
  std::string address;
  uint16_t port = 0;
  uint16_t management_port = 0;
  std::string model;
  std::string platform;
  std::string state;  ///< the code on the wire, "0" to "5" or "99"
  std::string mode;   ///< the code on the wire, "0" to "4"
};

struct UserRecord {
  std::string name;
  std::string address;
  std::string mode;  ///< "1" to "4"; "5" for a client that holds the management port elsewhere
};

struct MappedPortRecord {
  std::string name;
  std::string address;
  uint16_t port = 0;
  uint16_t mapped_port = 0;
  uint16_t authentication = 0;
};

// Each decodes one record. The span has the size of that record on the wire (command_wire.h).
ConsoleRecord DecodeConsole(std::span<const char> bytes);
UserRecord DecodeUser(std::span<const char> bytes);
MappedPortRecord DecodeMappedPort(std::span<const char> bytes);
std::string DecodePortHolder(std::span<const char> bytes);

/// What every answer begins with.
struct AnswerHeader {
  uint32_t type = 0;
  uint32_t count = 0;
};

/// Decodes the header. Throws Failure(kNoDaemon) for one that no command port sends.
AnswerHeader DecodeHeader(std::span<const char> bytes);

/// The first line of a command connection, without its end.
std::string CommandPortLine(const Settings& settings);

/// What is sent behind it: a telnet command that does nothing (IAC NOP, RFC 854). A login skips it,
/// and the command port takes it for a line and answers with an error, which shows that the
/// connection is open.
inline constexpr std::string_view kCommandPortProbe = "\xFF\xF1";

/// What the daemon says of a console whose management port it does not look at.
inline constexpr std::string_view kNotAPelloxConsole = "Not a Pellox console.";

/// The daemon's answer was an error text. The message adds what to do.
class CommandError : public Failure {
 public:
  explicit CommandError(const std::string& text);

  /// What the daemon said, alone.
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

/// A command connection. Every function throws CommandError when the daemon answers with an error,
/// and Failure(kNoDaemon) when it does not answer as it should.
class CommandPort {
 public:
  CommandPort(const Settings& settings, Credentials& credentials);

  /// All consoles, or the one of that name: none when it does not exist.
  std::vector<ConsoleRecord> Consoles(const std::string& name = {});
  std::vector<MappedPortRecord> MappedPorts();
  std::vector<UserRecord> Users(const std::string& console);

  /// Addresses of the clients that hold the console's management port.
  std::vector<std::string> PortHolders(const std::string& console);

  /// The text with which the daemon answers "status" and "stats": JSON, one object in each line.
  std::string JsonLines(const std::string& command);

  /// Runs a command whose answer is "done".
  void Do(const std::string& command);

 private:
  AnswerHeader Request(const std::string& command);
  AnswerHeader ReadHeader();
  std::string ReadBytes(size_t count);

  template <typename Record>
  std::vector<Record> Records(const std::string& command, size_t size,
                              Record (*decode)(std::span<const char>));

  Opening opening_;
};

}  // namespace zevctl
