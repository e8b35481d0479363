#include "web_options.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>

#include "config_toml.h"
#include "exit_status.h"

namespace zevweb {

namespace {

using zevctl::Findings;
using zevctl::Quoted;
using zevctl::TomlKind;
using zevctl::TomlMember;
using zevctl::TomlNode;

constexpr char kSeeManual[] = "zevweb(8) lists the keys";

// Takes a value; says what would be right when it cannot.
using Taker = std::function<std::string(const TomlNode&)>;
using Keys = std::map<std::string, Taker>;

Taker TakePath(std::string& path) {
  return [&path](const TomlNode& node) -> std::string {
    if (node.kind != TomlKind::kString || !node.text.starts_with('/')) {
      return "write a path that begins with \"/\", in quotes";
    }
    path = node.text;
    return {};
  };
}

Taker TakeTruth(bool& truth) {
  return [&truth](const TomlNode& node) -> std::string {
    if (node.kind != TomlKind::kBoolean) return "write true or false";
    truth = node.truth;
    return {};
  };
}

template <typename Number>
Taker TakeNumber(Number& number, int64_t least, int64_t most) {
  return [&number, least, most](const TomlNode& node) -> std::string {
    if (node.kind != TomlKind::kInteger || node.number < least || node.number > most) {
      return "write a number from " + std::to_string(least) + " to " + std::to_string(most);
    }
    number = static_cast<Number>(node.number);
    return {};
  };
}

Taker TakeGroup(std::string& group) {
  return [&group](const TomlNode& node) -> std::string {
    if (node.kind != TomlKind::kString || node.text.empty()) return "write a group, in quotes";
    group = node.text;
    return {};
  };
}

bool IsHeaderByte(char byte) {
  return isalnum(static_cast<unsigned char>(byte)) != 0 || byte == '-' || byte == '_';
}

Taker TakeHeader(std::string& header) {
  return [&header](const TomlNode& node) -> std::string {
    const std::string& text = node.text;
    if (node.kind != TomlKind::kString || text.empty() ||
        !std::ranges::all_of(text, IsHeaderByte)) {
      return "write the name of a header, in quotes, such as \"X-Remote-User\"";
    }
    header.clear();
    for (const char byte : text) {
      header += static_cast<char>(tolower(static_cast<unsigned char>(byte)));
    }
    header += ':';
    return {};
  };
}

bool IsAddress(const std::string& text) {
  in6_addr unused{};
  return inet_pton(AF_INET, text.c_str(), &unused) == 1 ||
         inet_pton(AF_INET6, text.c_str(), &unused) == 1;
}

// "ADDRESS:PORT", with brackets around an address of IPv6.
std::string TakeListen(const TomlNode& node, WebOptions& options) {
  constexpr char kMend[] = "write ADDRESS:PORT, in quotes, such as \"127.0.0.1:8443\"";
  const size_t colon = node.text.rfind(':');
  if (node.kind != TomlKind::kString || colon == std::string::npos) return kMend;
  std::string address = node.text.substr(0, colon);
  if (address.starts_with('[') && address.ends_with(']')) {
    address = address.substr(1, address.size() - 2);
  }
  const char* begin = node.text.data() + colon + 1;
  const char* end = node.text.data() + node.text.size();
  uint16_t port = 0;
  const auto [stop, error] = std::from_chars(begin, end, port);
  if (error != std::errc() || stop != end || port == 0 || !IsAddress(address)) return kMend;
  options.address = address;
  options.port = port;
  return {};
}

std::string TakeOrigins(const TomlNode& node, WebOptions& options) {
  constexpr char kMend[] = "write origins in brackets, such as [\"https://consoles.example.org\"]";
  if (node.kind != TomlKind::kArray) return kMend;
  for (const TomlNode& item : node.items) {
    const bool begins = item.text.starts_with("https://") || item.text.starts_with("http://");
    if (item.kind != TomlKind::kString || !begins || item.text.ends_with('/')) return kMend;
    options.origins.push_back(item.text);
  }
  return {};
}

void TakeTable(const TomlNode& table, const Keys& keys, Findings& findings) {
  for (const TomlMember& member : table.members) {
    const auto known = keys.find(member.key);
    if (known == keys.end()) {
      findings.Error(member.place, "unknown key " + Quoted(member.key), kSeeManual);
      continue;
    }
    const std::string mend = known->second(member.node);
    if (!mend.empty()) findings.Error(member.node.place, "bad " + Quoted(member.key), mend);
  }
}

Taker TakeInner(Keys keys, Findings& findings) {
  return [keys = std::move(keys), &findings](const TomlNode& node) -> std::string {
    if (node.kind != TomlKind::kTable)
      return "write a table: its name in brackets, on its own line";
    TakeTable(node, keys, findings);
    return {};
  };
}

}  // namespace

WebOptions ReadWebOptions(const std::string& text, const std::string& file, Findings& findings) {
  WebOptions options;
  const auto root = zevctl::ParseToml(text, file, findings);
  if (!root) return options;
  const Keys proxy = {{"socket", TakePath(options.proxy.socket)},
                      {"group", TakeGroup(options.proxy.group)},
                      {"header", TakeHeader(options.proxy.header)},
                      {"address_header", TakeHeader(options.proxy.address_header)}};
  const Keys sessions = {{"hours", TakeNumber(options.sessions.hours, 1, 720)},
                         {"idle_minutes", TakeNumber(options.sessions.idle_minutes, 1, 43200)}};
  if (root->Find("proxy") != nullptr) options.proxy.socket = "/run/zevweb/proxy.sock";
  const Keys keys = {
      {"listen", [&](const TomlNode& node) { return TakeListen(node, options); }},
      {"origin", [&](const TomlNode& node) { return TakeOrigins(node, options); }},
      {"tls", TakeTruth(options.tls)},
      {"certificate", TakePath(options.certificate)},
      {"key", TakePath(options.key)},
      {"page", TakePath(options.page)},
      {"directory", TakePath(options.directory)},
      {"main_port", TakeNumber(options.main_port, 1, 65535)},
      {"fleet_map", TakePath(options.fleet_map)},
      {"proxy", TakeInner(proxy, findings)},
      {"sessions", TakeInner(sessions, findings)},
  };
  TakeTable(*root, keys, findings);
  return options;
}

WebOptions LoadWebOptions(const std::string& file, Findings& findings) {
  std::error_code error;
  if (!std::filesystem::exists(file, error) && !error) return {};
  std::ifstream stream(file, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(stream), {}};
  if (error || !stream) {
    throw zevctl::Failure(zevctl::ExitStatus::kFailed,
                          "cannot read " + file + "; see the rights of the file");
  }
  return ReadWebOptions(text, file, findings);
}

}  // namespace zevweb
