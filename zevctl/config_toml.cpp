// The only file that includes the library, whose header takes many seconds to compile.
#include "config_toml.h"

#include <toml++/toml.h>

#include <cstdio>
#include <string_view>

namespace zevctl {

namespace {

constexpr char kMend[] = "correct it; consoles.toml(5) shows examples";

Place PlaceOf(const toml::source_region& source, const std::string& file) {
  return {file, source.begin.line, source.begin.column};
}

TomlNode Copied(const toml::node& node, const std::string& file) {
  TomlNode copy;
  copy.place = PlaceOf(node.source(), file);
  if (const auto* table = node.as_table()) {
    copy.kind = TomlKind::kTable;
    for (const auto& [key, value] : *table) {
      copy.members.push_back(
          {std::string(key.str()), PlaceOf(key.source(), file), Copied(value, file)});
    }
  } else if (const auto* array = node.as_array()) {
    copy.kind = TomlKind::kArray;
    for (const toml::node& item : *array) copy.items.push_back(Copied(item, file));
  } else if (const auto* text = node.as_string()) {
    copy.kind = TomlKind::kString;
    copy.text = text->get();
  } else if (const auto* number = node.as_integer()) {
    copy.kind = TomlKind::kInteger;
    copy.number = number->get();
  } else if (const auto* truth = node.as_boolean()) {
    copy.kind = TomlKind::kBoolean;
    copy.truth = truth->get();
  }
  return copy;
}

std::string Escape(char byte) {
  if (byte == '"' || byte == '\\') return std::string("\\") + byte;
  if (static_cast<unsigned char>(byte) >= 0x20 && byte != 0x7f) return {byte};
  char text[8];
  snprintf(text, sizeof text, "\\u%04X", static_cast<unsigned>(byte));
  return text;
}

}  // namespace

const TomlNode* TomlNode::Find(const std::string& key) const {
  for (const TomlMember& member : members) {
    if (member.key == key) return &member.node;
  }
  return nullptr;
}

std::optional<TomlNode> ParseToml(const std::string& text, const std::string& file,
                                  Findings& findings) {
  try {
    return Copied(toml::parse(std::string_view(text)), file);
  } catch (const toml::parse_error& error) {
    findings.Error(PlaceOf(error.source(), file), std::string(error.description()), kMend);
    return {};
  }
}

std::string TomlString(const std::string& text) {
  std::string quoted = "\"";
  for (const char byte : text) quoted += Escape(byte);
  return quoted + "\"";
}

}  // namespace zevctl
