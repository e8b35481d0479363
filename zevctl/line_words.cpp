#include "line_words.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <regex>
#include <string>

#include "utf8.h"

namespace zevctl {

namespace {

constexpr char kSshScheme[] = "ssh://";

// The line ends that only Unicode has, and characters that are none.
constexpr std::array<std::string_view, 5> kNotOfYaml{"\xe2\x80\xa8", "\xe2\x80\xa9", "\xef\xbb\xbf",
                                                     "\xef\xbf\xbe", "\xef\xbf\xbf"};

bool Matches(std::string_view text, const char* pattern) {
  return std::regex_match(text.begin(), text.end(), std::regex(pattern, std::regex::extended));
}

bool IsBlank(char byte) {
  return byte == ' ' || byte == '\t';
}

/// Splits a command, byte by byte.
class Splitter {
 public:
  void Take(char byte) {
    if (escaped_) {
      Add(byte);
      escaped_ = false;
    } else if (byte == '\\' && quote_ != '\'') {
      escaped_ = true;
    } else if (quote_ != 0) {
      if (byte == quote_) {
        quote_ = 0;
      } else {
        Add(byte);
      }
    } else if (byte == '"' || byte == '\'') {
      quote_ = byte;
      inside_ = true;
    } else if (IsBlank(byte)) {
      EndWord();
    } else {
      Add(byte);
    }
  }

  void EndWord() {
    if (inside_) words_.push_back(std::move(word_));
    word_.clear();
    inside_ = false;
  }

  bool open() const { return escaped_ || quote_ != 0; }
  std::vector<std::string> words() && { return std::move(words_); }

 private:
  void Add(char byte) {
    word_ += byte;
    inside_ = true;
  }

  std::vector<std::string> words_;
  std::string word_;
  char quote_ = 0;
  bool escaped_ = false;
  bool inside_ = false;
};

std::optional<std::uint16_t> PortIn(std::string_view text) {
  std::uint16_t port = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, port);
  if (error != std::errc() || stop != end || port == 0) return {};
  return port;
}

}  // namespace

std::optional<std::vector<std::string>> SplitCommand(std::string_view command) {
  Splitter splitter;
  for (const char byte : command) splitter.Take(byte);
  if (splitter.open()) return {};
  splitter.EndWord();
  return std::move(splitter).words();
}

std::optional<IpmiTarget> ReadIpmiTarget(std::string_view target) {
  static const std::regex form(
      "(([A-Za-z0-9_][A-Za-z0-9_.-]*)@)?([A-Za-z0-9][A-Za-z0-9.-]*)(:([0-9]{1,5}))?"
      "(,(9600|19200|38400|57600|115200))?",
      std::regex::extended);
  std::match_results<std::string_view::const_iterator> found;
  if (!std::regex_match(target.begin(), target.end(), found, form)) return {};
  IpmiTarget result;
  result.user = found[2].str();
  result.host = found[3].str();
  if (found[5].matched) {
    const auto port = PortIn(found[5].str());
    if (!port) return {};
    result.port = *port;
  }
  if (found[7].matched) result.speed = found[7].str();
  return result;
}

bool IsSerialTarget(std::string_view target) {
  return Matches(target,
                 "/dev/[A-Za-z0-9_./:+@=-]+"
                 "(,[0-9]{2,8}([NEOMSneoms][5-8][12]?)?)?"
                 "(,(xonxoff|rtscts|local|nobreak|hangup-when-done|custspeed)(=(true|false))?"
                 "|,(dtr|rts)=(on|off))*");
}

bool IsSshTarget(std::string_view target) {
  if (target.substr(0, sizeof kSshScheme - 1) == kSshScheme) {
    return Matches(target.substr(sizeof kSshScheme - 1),
                   "([A-Za-z0-9_][A-Za-z0-9_.-]*@)?[A-Za-z0-9][A-Za-z0-9.-]*(:[0-9]{1,5})?");
  }
  return Matches(target, "([A-Za-z0-9_][A-Za-z0-9_.-]*@)?[A-Za-z0-9][A-Za-z0-9._-]*");
}

bool IsPlainText(std::string_view text) {
  for (std::string_view rest = text; !rest.empty();) {
    const size_t length = zevd::Utf8Length(rest);
    if (length == 0) return false;
    const std::string_view character = rest.substr(0, length);
    if (std::find(kNotOfYaml.begin(), kNotOfYaml.end(), character) != kNotOfYaml.end()) {
      return false;
    }
    rest.remove_prefix(length);
  }
  if (text.find('\0') != std::string_view::npos) return false;
  std::string shown(text);
  zevd::ReplaceControls(shown.data());
  return shown == text;
}

std::string QuotedWord(std::string_view word) {
  std::string quoted = "\"";
  for (const char byte : word) {
    if (byte == '"' || byte == '\\') quoted += '\\';
    quoted += byte;
  }
  return quoted + '"';
}

std::string QuotedScalar(std::string_view text) {
  std::string quoted = "'";
  char before = 0;
  for (const char byte : text) {
    quoted += byte;
    if (byte == '\'') quoted += '\'';
    // "*(*" stands for "*(", and "*{*" for "*{".
    if (before == '*' && (byte == '(' || byte == '{')) quoted += '*';
    before = byte;
  }
  return quoted + '\'';
}

}  // namespace zevctl
