// Writing JSON (RFC 8259), for the answers that are texts.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zevd {

/// Appends values to a text, which stays the caller's, in the order of the calls. Objects and
/// arrays are closed by whoever opened them. May throw std::bad_alloc.
class JsonText {
 public:
  explicit JsonText(std::string& out) : out_(out) {}

  JsonText& BeginObject() { return Open('{'); }
  JsonText& EndObject() { return Close('}'); }
  JsonText& BeginArray() { return Open('['); }
  JsonText& EndArray() { return Close(']'); }

  /// The name of the next value; plain ASCII of the program's own.
  JsonText& Key(const char* name);

  /// Control characters are escaped, and each byte that is not part of well-formed UTF-8 becomes
  /// U+FFFD.
  JsonText& Text(std::string_view text);
  JsonText& TextOrNull(std::string_view text) { return text.empty() ? Null() : Text(text); }
  JsonText& Number(uint64_t value);

  /// Seconds since 1970 (UTC); null for 0, which stands for never.
  JsonText& Time(int64_t value);
  JsonText& Null();

 private:
  JsonText& Open(char bracket);
  JsonText& Close(char bracket);
  void Separate();

  std::string& out_;
  bool first_ = true;  // nothing comes before the next value: no comma
};

}  // namespace zevd
