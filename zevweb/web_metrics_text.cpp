#include "web_metrics_text.h"

#include <charconv>

namespace zevweb {

namespace {

void AppendEscaped(std::string_view text, bool is_label, std::string* out) {
  for (const char byte : text) {
    if (byte == '\\') {
      *out += "\\\\";
    } else if (byte == '\n') {
      *out += "\\n";
    } else if (byte == '"' && is_label) {
      *out += "\\\"";
    } else {
      *out += byte;
    }
  }
}

template <typename Number>
std::string_view InDigits(Number value, char* place, size_t size) {
  const auto [end, error] = std::to_chars(place, place + size, value);
  return {place, static_cast<size_t>(end - place)};
}

}  // namespace

void MetricsText::Gauge(std::string_view name, std::string_view unit, std::string_view help) {
  Begin(name, "gauge", unit, help);
  sample_ = name;
}

// The older format knows a counter by the name of its samples.
void MetricsText::Counter(std::string_view name, std::string_view unit, std::string_view help) {
  const std::string total = std::string(name) + "_total";
  Begin(format_ == Format::kPlain ? total : name, "counter", unit, help);
  sample_ = total;
}

void MetricsText::Begin(std::string_view name, std::string_view type, std::string_view unit,
                        std::string_view help) {
  text_.append("# HELP ").append(name).append(" ");
  AppendEscaped(help, false, &text_);
  text_.append("\n# TYPE ").append(name).append(" ").append(type).append("\n");
  if (format_ == Format::kOpenMetrics && !unit.empty()) {
    text_.append("# UNIT ").append(name).append(" ").append(unit).append("\n");
  }
}

void MetricsText::Sample(Labels labels, double value) {
  char digits[40];
  Put(labels, InDigits(value, digits, sizeof digits));
}

void MetricsText::Sample(Labels labels, uint64_t value) {
  char digits[24];
  Put(labels, InDigits(value, digits, sizeof digits));
}

void MetricsText::Put(Labels labels, std::string_view value) {
  text_ += sample_;
  char before = '{';
  for (const auto& [name, text] : labels) {
    text_ += before;
    text_.append(name).append("=\"");
    AppendEscaped(text, true, &text_);
    text_ += '"';
    before = ',';
  }
  if (before == ',') text_ += '}';
  text_ += ' ';
  text_.append(value).append("\n");
}

std::string MetricsText::Take() {
  if (format_ == Format::kOpenMetrics) text_ += "# EOF\n";
  return std::move(text_);
}

MetricsText::Format FormatFor(std::string_view accept) {
  const bool is_open = accept.find("application/openmetrics-text") != std::string_view::npos;
  return is_open ? MetricsText::Format::kOpenMetrics : MetricsText::Format::kPlain;
}

const char* TypeOf(MetricsText::Format format) {
  return format == MetricsText::Format::kOpenMetrics
             ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
             : "text/plain; version=0.0.4; charset=utf-8";
}

}  // namespace zevweb
