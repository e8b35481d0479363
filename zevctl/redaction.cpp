#include "redaction.h"

#include <algorithm>
#include <array>

namespace zevctl {

namespace {

constexpr std::string_view kRemoved = "[removed]";

// What comes behind these in a message was sent by somebody.
constexpr std::array<std::string_view, 11> kBeforeInput = {
    "Received ",         "user_cookie(", "token ",       "username=",
    "Invalid argument ", "message=",     "Unrecognized", "Message from ",
    "argument",          "assword",      "User \""};

// The daemon's messages begin so; in the journal, other lines are those of the service manager.
constexpr std::string_view kMessageStart = "ZEV ";
constexpr std::string_view kManager = " systemd[";

bool BeginsMessage(std::string_view line) {
  const size_t journal = line.find("]: ");
  const std::string_view text = journal == std::string_view::npos ? line : line.substr(journal + 3);
  return line.starts_with(kMessageStart) || text.starts_with(kMessageStart) ||
         line.find(kManager) < journal;
}

// Where the first text begins that somebody sent; npos where there is none.
size_t StartOfInput(std::string_view line) {
  size_t start = std::string_view::npos;
  for (const std::string_view marker : kBeforeInput) {
    const size_t found = line.find(marker);
    if (found != std::string_view::npos) start = std::min(start, found + marker.size());
  }
  return start;
}

}  // namespace

std::string Redaction::Take(std::string_view line) {
  if (!BeginsMessage(line) && leaving_out_) return "";
  const size_t start = StartOfInput(line);
  leaving_out_ = start != std::string_view::npos;
  std::string shown(line.substr(0, start));
  if (leaving_out_) shown += kRemoved;
  size_t found = cookie_.empty() ? std::string::npos : shown.find(cookie_);
  while (found != std::string::npos) {
    shown.replace(found, cookie_.size(), kRemoved);
    found = shown.find(cookie_, found + kRemoved.size());
  }
  return shown;
}

}  // namespace zevctl
