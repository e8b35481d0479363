// TOML as a tree of plain values with their places, so that only one file includes the library.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config_findings.h"

namespace zevctl {

enum class TomlKind { kTable, kArray, kString, kInteger, kBoolean, kOther };

struct TomlMember;

struct TomlNode {
  TomlKind kind = TomlKind::kOther;
  Place place;
  std::string text;                 ///< of a string
  int64_t number = 0;               ///< of an integer
  bool truth = false;               ///< of a boolean
  std::vector<TomlNode> items;      ///< of an array
  std::vector<TomlMember> members;  ///< of a table

  /// The value of a table's key, or null.
  const TomlNode* Find(const std::string& key) const;
};

struct TomlMember {
  std::string key;
  Place place;  ///< of the key
  TomlNode node;
};

/// The text's root table; nothing when it is no TOML, which is added to the findings.
std::optional<TomlNode> ParseToml(const std::string& text, const std::string& file,
                                  Findings& findings);

/// The text as TOML writes a string, in quotes.
std::string TomlString(const std::string& text);

}  // namespace zevctl
