#include "web_answer_head.h"

#include <algorithm>
#include <map>

namespace zevweb {

namespace {

const std::map<int, const char*> kReasons = {
    {200, "OK"},
    {204, "No Content"},
    {304, "Not Modified"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {409, "Conflict"},
    {410, "Gone"},
    {411, "Length Required"},
    {413, "Content Too Large"},
    {429, "Too Many Requests"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {503, "Service Unavailable"},
};

// Nothing from elsewhere, nothing inline, no frames: what a console prints cannot become anything
// that a browser runs.
constexpr char kStrict[] =
    "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; "
    "img-src 'self'; connect-src 'self'; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'\r\n"
    "X-Content-Type-Options: nosniff\r\n"
    "X-Frame-Options: DENY\r\n"
    "Referrer-Policy: no-referrer\r\n"
    "Cross-Origin-Opener-Policy: same-origin\r\n"
    "Cross-Origin-Resource-Policy: same-origin\r\n";

bool IsHeaderText(const std::string& text) {
  return std::ranges::none_of(
      text, [](char byte) { return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f; });
}

void Add(std::string& head, const std::string& name, const std::string& value) {
  if (IsHeaderText(name) && IsHeaderText(value)) head += name + ": " + value + "\r\n";
}

}  // namespace

std::string AnswerHead(const Response& response, const AnswerForm& form) {
  const auto reason = kReasons.find(response.status);
  std::string head = "HTTP/1.1 " + std::to_string(response.status) + " " +
                     (reason == kReasons.end() ? "Other" : reason->second) + "\r\n" + kStrict;
  bool has_cache_rule = false;
  for (const auto& [name, value] : response.headers) {
    Add(head, name, value);
    has_cache_rule = has_cache_rule || name == "Cache-Control";
  }
  if (!has_cache_rule) Add(head, "Cache-Control", "no-store");
  const bool has_body = response.status != 204 && response.status != 304;
  if (has_body) Add(head, "Content-Type", response.type);
  if (has_body && form.length) Add(head, "Content-Length", std::to_string(*form.length));
  if (form.is_chunked) Add(head, "Transfer-Encoding", "chunked");
  if (form.closes) Add(head, "Connection", "close");
  return head + "\r\n";
}

}  // namespace zevweb
