// The text in which metrics are read: OpenMetrics, or the older text format.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace zevweb {

class MetricsText {
 public:
  enum class Format { kOpenMetrics, kPlain };
  using Labels = std::initializer_list<std::pair<std::string_view, std::string_view>>;

  explicit MetricsText(Format format) : format_(format) {}

  /// Begins a family; its samples follow. The name of a counter has no "_total". `unit`: what the
  /// name ends in, or empty.
  void Gauge(std::string_view name, std::string_view unit, std::string_view help);
  void Counter(std::string_view name, std::string_view unit, std::string_view help);

  void Sample(Labels labels, double value);
  void Sample(Labels labels, uint64_t value);

  /// The whole text; nothing can be added any more.
  std::string Take();

 private:
  void Begin(std::string_view name, std::string_view type, std::string_view unit,
             std::string_view help);
  void Put(Labels labels, std::string_view value);

  Format format_;
  std::string text_;
  std::string sample_;  // the name of the family's samples
};

/// The format that the header Accept asks for.
MetricsText::Format FormatFor(std::string_view accept);

/// The type of an answer in that format.
const char* TypeOf(MetricsText::Format format);

}  // namespace zevweb
