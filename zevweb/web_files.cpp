#include "web_files.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>

#include "web_digest.h"

namespace zevweb {

namespace {

const std::map<std::string, std::string> kTypes = {
    {".html", "text/html; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".svg", "image/svg+xml"},
    {".png", "image/png"},
    {".woff2", "font/woff2"},
    {".txt", "text/plain; charset=utf-8"},
    {".webmanifest", "application/manifest+json"},
};

constexpr size_t kDigits = 32;  // of the digest, in a tag

std::optional<std::string> Bytes(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) return {};
  return std::string{std::istreambuf_iterator<char>(stream), {}};
}

}  // namespace

WebFiles::WebFiles(const std::string& directory) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    const auto type = kTypes.find(entry.path().extension());
    if (type == kTypes.end() || !entry.is_regular_file(error)) continue;
    auto bytes = Bytes(entry.path());
    if (!bytes) continue;
    WebFile file{type->second, "\"" + Digest(*bytes).substr(0, kDigits) + "\"", *bytes, {}};
    if (auto packed = Bytes(entry.path().string() + ".gz")) file.packed = *packed;
    files_["/" + entry.path().filename().string()] = std::move(file);
  }
}

const WebFile* WebFiles::Find(const std::string& path) const {
  const auto found = files_.find(path == "/" ? "/index.html" : path);
  return found == files_.end() ? nullptr : &found->second;
}

}  // namespace zevweb
