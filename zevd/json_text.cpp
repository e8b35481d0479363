#include "json_text.h"

#include <cstdio>

#include "utf8.h"

namespace zevd {

namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

// `character` is one of well-formed UTF-8. The control characters beyond ASCII are escaped, too: a
// terminal would obey them.
void AppendCharacter(std::string& out, std::string_view character) {
  const auto byte = static_cast<unsigned char>(character[0]);
  const bool is_c1 = byte == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0;
  if (byte == '"' || byte == '\\') {
    out += '\\';
    out += character;
  } else if (byte < 0x20 || byte == 0x7F || is_c1) {
    char escape[8];
    snprintf(escape, sizeof escape, "\\u%04x",
             is_c1 ? static_cast<unsigned char>(character[1]) : byte);
    out += escape;
  } else {
    out += character;
  }
}

}  // namespace

JsonText& JsonText::Key(const char* name) {
  Separate();
  out_.append("\"").append(name).append("\": ");
  first_ = true;
  return *this;
}

JsonText& JsonText::Text(std::string_view text) {
  Separate();
  out_ += '"';
  while (!text.empty()) {
    const size_t length = Utf8Length(text);
    if (length == 0) {
      out_ += kReplacement;
      text.remove_prefix(1);
    } else {
      AppendCharacter(out_, text.substr(0, length));
      text.remove_prefix(length);
    }
  }
  out_ += '"';
  return *this;
}

JsonText& JsonText::Number(uint64_t value) {
  Separate();
  out_ += std::to_string(value);
  return *this;
}

JsonText& JsonText::Time(int64_t value) {
  return value <= 0 ? Null() : Number(static_cast<uint64_t>(value));
}

JsonText& JsonText::Null() {
  Separate();
  out_ += "null";
  return *this;
}

JsonText& JsonText::Open(char bracket) {
  Separate();
  out_ += bracket;
  first_ = true;
  return *this;
}

JsonText& JsonText::Close(char bracket) {
  out_ += bracket;
  first_ = false;
  return *this;
}

void JsonText::Separate() {
  if (!first_) out_ += ", ";
  first_ = false;
}

}  // namespace zevd
