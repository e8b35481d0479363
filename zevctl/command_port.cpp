#include "command_port.h"

#include <algorithm>
#include <array>

#include "command_wire.h"

namespace zevctl {

namespace {

constexpr char kCommandPortName[] = "@@@@";
constexpr Milliseconds kAnswerLimit{30000};
constexpr size_t kLongestCommand = 1022;  // without the line end

// Far more than any station has. Memory is taken only for what has arrived.
constexpr uint32_t kMostRecords = 1'000'000;

[[noreturn]] void ThrowGarbled() {
  throw Failure(ExitStatus::kNoDaemon,
                "what answers at this address is no command port of zevd; see --host and --port");
}

/// Takes the fields of a record, one after the other.
class PacketReader {
 public:
  explicit PacketReader(std::span<const char> bytes) : bytes_(bytes) {}

  std::string Text(size_t width) {
    const auto field = Take(width);
    return {field.begin(), std::find(field.begin(), field.end(), '\0')};
  }

  uint16_t Number16() { return static_cast<uint16_t>(Number(2)); }
  uint32_t Number32() { return Number(4); }

 private:
  std::span<const char> Take(size_t width) {
    const auto field = bytes_.first(width);
    bytes_ = bytes_.subspan(width);
    return field;
  }

  // Little-endian.
  uint32_t Number(size_t width) {
    const auto field = Take(width);
    uint32_t value = 0;
    for (size_t i = width; i-- > 0;) value = value << 8 | static_cast<uint8_t>(field[i]);
    return value;
  }

  std::span<const char> bytes_;
};

// The daemon reads at most 1023 bytes as a line, and would take a longer one for two commands.
void CheckLength(const std::string& command) {
  if (command.size() <= kLongestCommand) return;
  throw Failure(ExitStatus::kUsage, "the command is too long: at most " +
                                        std::to_string(kLongestCommand) +
                                        " characters; shorten it");
}

struct Advice {
  std::string_view error;  // what the text begins with
  std::string_view advice;
};

constexpr std::array kAdvice = {
    Advice{"Unrecognized console", "\"zevctl list\" shows the names."},
    Advice{kNotAPelloxConsole, "Only the management port of such a console names its holder."},
    Advice{"Unable to connect to remote host", "Ask again once the daemon has been refused."},
    Advice{"Out of memory.", "Look at the memory of the station, and try again."},
    Advice{"Invalid command.", "The daemon is older than this program: bring it up to date."},
};

std::string WithAdvice(const std::string& error) {
  for (const Advice& row : kAdvice) {
    if (error.starts_with(row.error)) return error + " " + std::string(row.advice);
  }
  return error;
}

ExitStatus StatusOfError(std::string_view text) {
  return text.starts_with("Unrecognized console") ? ExitStatus::kNoSuchConsole
                                                  : ExitStatus::kFailed;
}

}  // namespace

ConsoleRecord DecodeConsole(std::span<const char> bytes) {
  PacketReader reader(bytes);
  ConsoleRecord record;
  record.name = reader.Text(zevd::kWireNameWidth);
  record.address = reader.Text(zevd::kWireNameWidth);
  record.port = reader.Number16();
  record.management_port = reader.Number16();
  record.model = reader.Text(zevd::kWireNameWidth);
  record.platform = reader.Text(zevd::kWireNameWidth);
  record.state = reader.Text(zevd::kWireCodeWidth);
  record.mode = reader.Text(zevd::kWireCodeWidth);
  return record;
}

UserRecord DecodeUser(std::span<const char> bytes) {
  PacketReader reader(bytes);
  UserRecord record;
  record.name = reader.Text(zevd::kWireUserNameWidth);
  record.address = reader.Text(zevd::kWireNameWidth);
  record.mode = reader.Text(zevd::kWireCodeWidth);
  return record;
}

MappedPortRecord DecodeMappedPort(std::span<const char> bytes) {
  PacketReader reader(bytes);
  MappedPortRecord record;
  record.name = reader.Text(zevd::kWireNameWidth);
  record.address = reader.Text(zevd::kWireNameWidth);
  record.port = reader.Number16();
  record.mapped_port = reader.Number16();
  record.authentication = reader.Number16();
  return record;
}

std::string DecodePortHolder(std::span<const char> bytes) {
  return PacketReader(bytes).Text(zevd::kWireNameWidth);
}

AnswerHeader DecodeHeader(std::span<const char> bytes) {
  PacketReader reader(bytes);
  AnswerHeader header;
  header.type = reader.Number32();
  header.count = reader.Number32();
  const bool known = header.type >= zevd::kRecordsFollow && header.type <= zevd::kDone;
  const bool long_text = header.type == zevd::kErrorFollows && header.count > zevd::kErrorTextSize;
  if (!known || long_text) ThrowGarbled();
  return header;
}

std::string CommandPortLine(const Settings& settings) {
  return std::string(kCommandPortName) + " " + Introduction(settings);
}

CommandError::CommandError(const std::string& text)
    : Failure(StatusOfError(text), WithAdvice(text)), text_(text) {}

CommandPort::CommandPort(const Settings& settings, Credentials& credentials)
    : opening_(OpenMainPort(settings, credentials, CommandPortLine(settings), kCommandPortProbe)) {
  const AnswerHeader header = ReadHeader();
  if (header.type != zevd::kErrorFollows) ThrowGarbled();
  ReadBytes(header.count);
}

std::vector<ConsoleRecord> CommandPort::Consoles(const std::string& name) {
  const std::string command = name.empty() ? "console" : "console " + name;
  return Records<ConsoleRecord>(command, zevd::kConsolePacketSize, DecodeConsole);
}

std::vector<MappedPortRecord> CommandPort::MappedPorts() {
  return Records<MappedPortRecord>("mapped_port", zevd::kMappedPortPacketSize, DecodeMappedPort);
}

std::vector<UserRecord> CommandPort::Users(const std::string& console) {
  return Records<UserRecord>("who " + console, zevd::kUserPacketSize, DecodeUser);
}

std::vector<std::string> CommandPort::PortHolders(const std::string& console) {
  return Records<std::string>("portholder " + console, zevd::kPortHolderAddressPacketSize,
                              DecodePortHolder);
}

std::string CommandPort::JsonLines(const std::string& command) {
  const AnswerHeader header = Request(command);
  if (header.type != zevd::kRecordsFollow) ThrowGarbled();
  return ReadBytes(header.count);
}

void CommandPort::Do(const std::string& command) {
  if (Request(command).type != zevd::kDone) ThrowGarbled();
}

AnswerHeader CommandPort::Request(const std::string& command) {
  CheckLength(command);
  opening_.socket.Send(command + "\n", kAnswerLimit);
  const AnswerHeader header = ReadHeader();
  if (header.type != zevd::kErrorFollows) return header;
  const std::string text = ReadBytes(header.count);
  throw CommandError(text.substr(0, text.find('\0')));
}

AnswerHeader CommandPort::ReadHeader() {
  return DecodeHeader(ReadBytes(zevd::kHeaderSize));
}

std::string CommandPort::ReadBytes(size_t count) {
  std::string& received = opening_.received;
  std::array<char, 65536> chunk{};
  while (received.size() < count) {
    const size_t length = opening_.socket.Receive(chunk, kAnswerLimit);
    if (length == 0) {
      throw Failure(ExitStatus::kNoDaemon,
                    "the daemon closed the connection; try again, and see zevd.log");
    }
    received.append(chunk.data(), length);
  }
  std::string bytes = received.substr(0, count);
  received.erase(0, count);
  return bytes;
}

template <typename Record>
std::vector<Record> CommandPort::Records(const std::string& command, size_t size,
                                         Record (*decode)(std::span<const char>)) {
  const AnswerHeader header = Request(command);
  if (header.type != zevd::kRecordsFollow || header.count > kMostRecords) ThrowGarbled();
  std::vector<Record> records;
  for (uint32_t i = 0; i < header.count; ++i) records.push_back(decode(ReadBytes(size)));
  return records;
}

}  // namespace zevctl
