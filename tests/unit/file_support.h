// Directories that belong to one test, and files in them.
//
// The tests link a copy of the daemon whose root directory is the relative path "root". A test that
// needs files there declares a StationRoot, which gives it a working directory of its own. Tests
// can therefore run side by side, and they leave the machine as it was.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace test {

/// A new directory in the build tree, removed at the end with everything in it.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

/// A working directory of the test's own with the station's "root/config", "root/logs" and
/// "root/run". Death tests that use it keep the "fast" style, in which the child inherits it.
class StationRoot {
 public:
  StationRoot();
  ~StationRoot();
  StationRoot(const StationRoot&) = delete;
  StationRoot& operator=(const StationRoot&) = delete;

 private:
  TemporaryDirectory directory_;
  std::filesystem::path former_;
};

void WriteFile(const std::filesystem::path& path, std::string_view content);
std::string ReadFile(const std::filesystem::path& path);

}  // namespace test
