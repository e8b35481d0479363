#include "web_tokens.h"

#include <ctime>

#include "config_file.h"

namespace zevweb {

namespace {

bool IsSameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
         a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

}  // namespace

std::optional<std::string> WebTokens::TokenName(std::string_view secret) {
  if (secret.empty()) return {};
  const std::string hash = zevctl::TokenHash(secret);
  const std::lock_guard lock(mutex_);
  Refresh();
  const auto found = by_hash_.find(hash);
  if (found == by_hash_.end() || found->second.HasExpired(time(nullptr))) return {};
  return found->second.name;
}

void WebTokens::Refresh() {
  struct stat now {};
  const std::string path = directory_ + "/" + zevctl::kTokenFile;
  if (lstat(path.c_str(), &now) != 0) now = {};
  if (is_read_ && IsSameFile(now, seen_)) return;
  seen_ = now;
  is_read_ = true;
  by_hash_.clear();
  const zevctl::ReadFile file = zevctl::ReadSafely(directory_, zevctl::kTokenFile);
  if (file.kind != zevctl::FileKind::kRegular) return;
  size_t bad_line = 0;
  for (zevctl::Token& token : zevctl::ParseTokens(file.text, &bad_line)) {
    const std::string hash = token.hash;
    by_hash_.emplace(hash, std::move(token));
  }
}

}  // namespace zevweb
