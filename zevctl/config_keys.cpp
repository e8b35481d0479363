#include "config_keys.h"

#include <algorithm>

namespace zevctl {

namespace {

std::string KnownKeys(bool of_console) {
  std::string list;
  for (const KeyRow& row : kKeys) {
    if (!of_console && row.scope == KeyScope::kConsole) continue;
    list += (list.empty() ? "" : ", ") + std::string(row.key);
  }
  return list;
}

const char* Wanted(KeyType type) {
  switch (type) {
    case KeyType::kText:
      return "write a text in double quotes";
    case KeyType::kFlag:
      return "write true or false, without quotes";
    case KeyType::kNumber:
      break;
  }
  return "write a number, or a range such as \"65[01-40]\"";
}

// The value as text; nothing when it is of another kind than the key's.
std::optional<std::string> TextOf(const TomlNode& node, KeyType type) {
  switch (node.kind) {
    case TomlKind::kString:
      if (type != KeyType::kFlag) return node.text;
      break;
    case TomlKind::kInteger:
      if (type == KeyType::kNumber) return std::to_string(node.number);
      break;
    case TomlKind::kBoolean:
      if (type == KeyType::kFlag) return node.truth ? "1" : "0";
      break;
    default:
      break;
  }
  return {};
}

void ReadKey(const TomlMember& member, bool of_console, KeyValues& values, Findings& findings) {
  const KeyRow* row = FindKey(member.key);
  if (row == nullptr) {
    findings.Error(member.place, "unknown key " + Quoted(member.key),
                   "the keys here are " + KnownKeys(of_console));
    return;
  }
  if (!of_console && row->scope == KeyScope::kConsole) {
    findings.Error(member.place, Quoted(member.key) + " belongs to a single console",
                   "write it below [[console]]");
    return;
  }
  const auto text = TextOf(member.node, row->type);
  if (text) {
    values[row->key] = {*text, member.node.place};
  } else {
    findings.Error(member.node.place, Quoted(member.key) + " has a value of another kind",
                   Wanted(row->type));
  }
}

}  // namespace

const KeyRow* FindKey(std::string_view key) {
  const auto* row = std::find_if(kKeys.begin(), kKeys.end(),
                                 [&](const KeyRow& candidate) { return candidate.key == key; });
  return row == kKeys.end() ? nullptr : row;
}

KeyValues ReadKeys(const TomlNode& table, bool of_console, Findings& findings) {
  KeyValues values;
  for (const TomlMember& member : table.members) ReadKey(member, of_console, values, findings);
  return values;
}

}  // namespace zevctl
