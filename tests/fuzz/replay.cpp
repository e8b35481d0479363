// Feeds the files of a corpus to a harness, as a test. Usage: NAME_replay DIRECTORY
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <ios>
#include <iterator>
#include <vector>

#include "fuzz.h"

using namespace zevd;

namespace {

std::vector<std::filesystem::path> Files(const char* directory) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    files.push_back(std::filesystem::absolute(entry.path()));
  }
  return files;
}

void Replay(const std::filesystem::path& path) {
  fprintf(stderr, "%s\n", path.c_str());
  std::ifstream file(path, std::ios::binary);
  REQUIRE(file.good());
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  REQUIRE(argc == 2);
  const std::vector<std::filesystem::path> files = Files(argv[1]);
  REQUIRE(!files.empty());
  for (const auto& path : files) Replay(path);
  fprintf(stderr, "%zu inputs\n", files.size());
  return 0;
}
