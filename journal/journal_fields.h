// The fields of payloads: written by the daemon, taken apart by readers. Any thread.
#pragma once

#include <algorithm>

#include "journal_format.h"

namespace journal {

/// Builds a payload in room that the caller has. What does not fit any more is left out whole, and
/// a text that is too long for a field is cut.
class FieldWriter {
 public:
  FieldWriter(char* room, size_t size) : room_(room), size_(size) {}

  /// An empty or null text adds nothing.
  void Add(Field field, const char* text) {
    if (text != nullptr) Add(field, std::string_view(text));
  }
  void Add(Field field, std::string_view text) {
    if (!text.empty()) AddBytes(field, text.data(), std::min(text.size(), kMostFieldValue));
  }
  void AddNumber(Field field, int64_t number) {
    char bytes[sizeof number];
    PutNumber(bytes, number);
    AddBytes(field, bytes, sizeof bytes);
  }

  size_t length() const { return length_; }

 private:
  void AddBytes(Field field, const char* bytes, size_t count) {
    if (size_ - length_ < kFieldHeaderSize + count) return;
    char* place = room_ + length_;
    place[0] = static_cast<char>(field);
    PutNumber(place + 1, static_cast<uint16_t>(count));
    memcpy(place + kFieldHeaderSize, bytes, count);
    length_ += kFieldHeaderSize + count;
  }

  char* room_;
  size_t size_;
  size_t length_ = 0;
};

/// A payload's fields. The views point into the payload. A payload that is cut or lies about its
/// lengths has the fields before that place.
class FieldReader {
 public:
  explicit FieldReader(std::string_view payload) : payload_(payload) {}

  /// The first field with this tag; empty if there is none.
  std::string_view Text(Field field) const { return Find(field).value_or(std::string_view()); }

  /// The first field with this tag that is a number.
  std::optional<int64_t> Number(Field field) const {
    const auto value = Find(field);
    if (!value || value->size() != sizeof(int64_t)) return {};
    return GetNumber<int64_t>(value->data());
  }

  /// Whether there is such a field.
  bool Has(Field field) const { return Find(field).has_value(); }

 private:
  std::optional<std::string_view> Find(Field field) const {
    std::string_view rest = payload_;
    while (rest.size() >= kFieldHeaderSize) {
      const size_t count = GetNumber<uint16_t>(rest.data() + 1);
      if (rest.size() - kFieldHeaderSize < count) return {};
      if (static_cast<Field>(rest[0]) == field) return rest.substr(kFieldHeaderSize, count);
      rest.remove_prefix(kFieldHeaderSize + count);
    }
    return {};
  }

  std::string_view payload_;
};

}  // namespace journal
