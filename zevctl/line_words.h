// Operators' texts of lines, taken apart and made safe for what reads them next.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zevctl {

/// "admin@bmc-db1:6230,9600": user, port and speed may be missing.
struct IpmiTarget {
  std::string user;
  std::string host;
  std::uint16_t port = 623;
  std::string speed = "115200";
};

/// The arguments of a command, split as a shell would: at blanks, unless they are quoted. Nothing
/// is expanded. Nothing when a quotation has no end.
std::optional<std::vector<std::string>> SplitCommand(std::string_view command);

/// Nothing when the text is none.
std::optional<IpmiTarget> ReadIpmiTarget(std::string_view target);

/// True for "/dev/ttyUSB0", and with a speed and settings behind commas.
bool IsSerialTarget(std::string_view target);

/// True for "admin@ts1" and "ssh://admin@ts1:2222".
bool IsSshTarget(std::string_view target);

/// False when it holds control characters or is not UTF-8, which no file of YAML can hold.
bool IsPlainText(std::string_view text);

/// A word in double quotes, as gensio reads one: whatever it holds stays together.
std::string QuotedWord(std::string_view word);

/// A text in single quotes, as YAML reads one. What the line server would take for the contents of
/// another name or of a file is kept from it.
std::string QuotedScalar(std::string_view text);

}  // namespace zevctl
