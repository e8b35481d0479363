#include "fleet_options.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <string_view>

#include "config_file.h"
#include "config_toml.h"
#include "exit_status.h"

namespace zevfleet {

namespace {

using zevctl::Findings;
using zevctl::Quoted;
using zevctl::TomlKind;
using zevctl::TomlMember;
using zevctl::TomlNode;

constexpr char kSeeManual[] = "zevfleet(8) lists the keys";
constexpr size_t kMostName = 64;

// Takes a value; says what would be right when it cannot.
using Taker = std::function<std::string(const TomlNode&)>;
using Keys = std::map<std::string, Taker>;

Taker TakeName(std::string& name) {
  return [&name](const TomlNode& node) -> std::string {
    if (node.kind != TomlKind::kString || !IsPlainName(node.text)) {
      return "write a word of letters, digits, \"-\" and \"_\", in quotes";
    }
    name = node.text;
    return {};
  };
}

Taker TakeWord(std::string& word) {
  return [&word](const TomlNode& node) -> std::string {
    const bool has_blank = node.text.find_first_of(" \t\r\n\"") != std::string::npos;
    if (node.kind != TomlKind::kString || node.text.empty() || has_blank) {
      return "write a word without blanks, in quotes";
    }
    word = node.text;
    return {};
  };
}

Taker TakePath(std::string& path) {
  return [&path](const TomlNode& node) -> std::string {
    if (node.kind != TomlKind::kString || !node.text.starts_with('/')) {
      return "write a path that begins with \"/\", in quotes";
    }
    path = node.text;
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

bool BeginsWithOne(const std::string& text, const std::vector<std::string>& beginnings) {
  return std::ranges::any_of(beginnings, [&](const std::string& beginning) {
    return text.starts_with(beginning) && text.size() > beginning.size();
  });
}

Taker TakeAddress(std::string& address, const std::vector<std::string>& schemes) {
  return [&address, schemes](const TomlNode& node) -> std::string {
    if (node.kind != TomlKind::kString || !BeginsWithOne(node.text, schemes)) {
      return "write an address that begins with \"" + schemes.front() + "\", in quotes";
    }
    address = node.text;
    return {};
  };
}

Taker TakeAddresses(std::vector<std::string>& addresses, const std::vector<std::string>& schemes) {
  return [&addresses, schemes](const TomlNode& node) -> std::string {
    std::string mend =
        "write addresses in brackets, such as [\"" + schemes.front() + "HOST:PORT\"]";
    if (node.kind != TomlKind::kArray || node.items.empty()) return mend;
    addresses.clear();
    for (const TomlNode& item : node.items) {
      if (item.kind != TomlKind::kString || !BeginsWithOne(item.text, schemes) ||
          item.text.ends_with('/')) {
        return mend;
      }
      addresses.push_back(item.text);
    }
    return {};
  };
}

Taker TakeKinds(std::vector<std::string>& kinds) {
  return [&kinds](const TomlNode& node) -> std::string {
    constexpr char kMend[] = "write some of [\"out\", \"event\", \"state\", \"audit\"]";
    const std::vector<std::string> all = NatsOptions().kinds;
    if (node.kind != TomlKind::kArray || node.items.empty()) return kMend;
    kinds.clear();
    for (const TomlNode& item : node.items) {
      if (std::ranges::find(all, item.text) == all.end()) return kMend;
      kinds.push_back(item.text);
    }
    return {};
  };
}

void TakeTable(const TomlNode& table, const Keys& keys, Findings& findings) {
  for (const TomlMember& member : table.members) {
    const auto known = keys.find(member.key);
    if (known == keys.end()) {
      findings.Error(member.place, "unknown key " + Quoted(member.key), kSeeManual);
      continue;
    }
    std::string mend = known->second(member.node);
    if (!mend.empty()) findings.Error(member.node.place, "bad " + Quoted(member.key), mend);
  }
}

Taker TakeInner(Keys keys, Findings& findings) {
  return [keys = std::move(keys), &findings](const TomlNode& node) -> std::string {
    if (node.kind != TomlKind::kTable) {
      return "write a table: its name in brackets, on its own line";
    }
    TakeTable(node, keys, findings);
    return {};
  };
}

Keys KeysOf(EtcdOptions& etcd) {
  return {{"endpoints", TakeAddresses(etcd.endpoints, {"https://", "http://"})},
          {"ca", TakePath(etcd.tls.ca)},
          {"certificate", TakePath(etcd.tls.certificate)},
          {"key", TakePath(etcd.tls.key)},
          {"user", TakeWord(etcd.user)},
          {"password_file", TakePath(etcd.password_file)},
          {"lease_seconds", TakeNumber(etcd.lease_seconds, 5, 3600)}};
}

Keys KeysOf(NatsOptions& nats) {
  constexpr int64_t kMostBytes = int64_t{1} << 50;
  constexpr int64_t kMostHours = int64_t{24} * 366 * 100;
  return {{"urls", TakeAddresses(nats.urls, {"nats://", "tls://"})},
          {"ca", TakePath(nats.tls.ca)},
          {"certificate", TakePath(nats.tls.certificate)},
          {"key", TakePath(nats.tls.key)},
          {"credentials", TakePath(nats.credentials)},
          {"replicas", TakeNumber(nats.replicas, 1, 5)},
          {"kinds", TakeKinds(nats.kinds)},
          {"max_bytes", TakeNumber(nats.max_bytes, 0, kMostBytes)},
          {"max_age_hours", TakeNumber(nats.max_age_hours, 0, kMostHours)}};
}

std::string HostName() {
  char name[256] = "";
  if (gethostname(name, sizeof name) != 0) return "localhost";
  name[sizeof name - 1] = '\0';
  return name;
}

void CheckTls(const TlsFiles& tls, const char* table, const std::string& file, Findings& findings) {
  if (tls.certificate.empty() == tls.key.empty()) return;
  findings.Error({file}, std::string("[") + table + "] has half of a certificate",
                 "set both \"certificate\" and \"key\", or neither");
}

void CheckWhole(const FleetOptions& options, const std::string& file, Findings& findings) {
  const auto require = [&](bool there, const char* key, const char* mend) {
    if (!there) findings.Error({file}, "no " + Quoted(key), mend);
  };
  require(!options.site.empty(), "site", "set it to the name of the fleet");
  require(!options.station.empty(), "station", "set it to this station's name in the fleet");
  require(!options.etcd.endpoints.empty() || !options.nats.urls.empty(), "endpoints",
          "set it in [etcd], to share consoles, or \"urls\" in [nats], to ship the journal");
  CheckTls(options.etcd.tls, "etcd", file, findings);
  CheckTls(options.nats.tls, "nats", file, findings);
  if (options.etcd.user.empty() != options.etcd.password_file.empty()) {
    findings.Error({file}, "[etcd] has half of a login",
                   "set both \"user\" and \"password_file\", or neither");
  }
}

}  // namespace

bool IsPlainName(const std::string& text) {
  return !text.empty() && text.size() <= kMostName && std::ranges::all_of(text, [](char byte) {
    return isalnum(static_cast<unsigned char>(byte)) != 0 || byte == '-' || byte == '_';
  });
}

FleetOptions ReadFleetOptions(const std::string& text, const std::string& file,
                              Findings& findings) {
  FleetOptions options;
  const auto root = zevctl::ParseToml(text, file, findings);
  if (!root) return options;
  const Keys keys = {
      {"site", TakeName(options.site)},
      {"station", TakeName(options.station)},
      {"address", TakeWord(options.address)},
      {"web", TakeAddress(options.web, {"https://", "http://"})},
      {"run_directory", TakePath(options.run_directory)},
      {"state_directory", TakePath(options.state_directory)},
      {"main_port", TakeNumber(options.main_port, 1, 65535)},
      {"return_seconds", TakeNumber(options.return_seconds, 0, 86400)},
      {"etcd", TakeInner(KeysOf(options.etcd), findings)},
      {"nats", TakeInner(KeysOf(options.nats), findings)},
  };
  TakeTable(*root, keys, findings);
  if (findings.errors() == 0) CheckWhole(options, file, findings);
  if (options.address.empty()) options.address = HostName();
  return options;
}

FleetOptions LoadFleetOptions(const std::string& file, Findings& findings) {
  const zevctl::ReadFile read = zevctl::ReadWhole(file);
  if (read.kind == zevctl::FileKind::kRegular) return ReadFleetOptions(read.text, file, findings);
  const bool missing = read.kind == zevctl::FileKind::kMissing;
  throw zevctl::Failure(
      zevctl::ExitStatus::kFailed,
      missing ? "there is no " + file + "; zevfleet(8) tells what belongs there"
              : "cannot read " + file + ": " + read.reason + "; see the rights of the file");
}

}  // namespace zevfleet
