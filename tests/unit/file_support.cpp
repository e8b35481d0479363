#include "file_support.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <ios>
#include <iterator>
#include <ostream>
#include <string>
#include <string_view>
#include <system_error>

#include "errno_support.h"

namespace test {

TemporaryDirectory::TemporaryDirectory() {
  std::filesystem::create_directories(ZEVD_UNIT_SCRATCH);
  std::string name = ZEVD_UNIT_SCRATCH "/XXXXXX";
  if (mkdtemp(name.data()) == nullptr) ThrowErrno("mkdtemp");
  path_ = name;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

StationRoot::StationRoot() : former_(std::filesystem::current_path()) {
  for (const char* part : {"config", "logs", "run"}) {
    std::filesystem::create_directories(directory_.path() / "root" / part);
  }
  std::filesystem::current_path(directory_.path());
}

StationRoot::~StationRoot() {
  std::filesystem::current_path(former_);
}

void WriteFile(const std::filesystem::path& path, std::string_view content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.exceptions(std::ios::failbit | std::ios::badbit);
  file << content << std::flush;
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) ThrowErrno("open");
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace test
