#include "log_filter.h"

#include "exit_status.h"

namespace zevctl {

Pattern::Pattern(const std::string& text, bool ignore_case, const std::string& source) {
  const int error = regcomp(&compiled_, text.c_str(), REG_EXTENDED | (ignore_case ? REG_ICASE : 0));
  if (error == 0) return;
  throw Failure(ExitStatus::kUsage, source + ": " + ErrorText(error) +
                                        "; put \\ before a character that stands for itself");
}

Pattern::~Pattern() {
  regfree(&compiled_);
}

bool Pattern::Matches(std::string_view text) const {
  regmatch_t whole = {0, static_cast<regoff_t>(text.size())};
  return regexec(&compiled_, text.data(), 1, &whole, REG_STARTEND) == 0;
}

std::string Pattern::ErrorText(int error) const {
  char text[256];
  regerror(error, &compiled_, text, sizeof text);
  return text;
}

bool Filter::TakesTimeOf(const Record& record) const {
  if (since && record.time.value_or(*since - 1) < *since) return false;
  return !until || record.time.value_or(*until) <= *until;
}

bool Filter::TakesBodyOf(const Record& record) const {
  return !pattern || pattern->Matches(record.body) != inverted;
}

}  // namespace zevctl
