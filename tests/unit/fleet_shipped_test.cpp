#include "fleet_shipped.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "exit_status.h"
#include "file_support.h"

namespace zevfleet {

namespace {

namespace fs = std::filesystem;

class FleetShippedTest : public ::testing::Test {
 protected:
  fs::path Directory() const { return directory_.path() / "state"; }

  const Shipped shipped_ = {{{0x1122334455667788, 3, 64}, 17, 1'000'000'000, true},
                            {{0x1122334455667788, 2, 99}, 15, 5, false},
                            12,
                            1'700'000'000};
  test::TemporaryDirectory directory_;
};

TEST_F(FleetShippedTest, TheDirectoryIsMadeAndEmpty) {
  const ShippedFile file(Directory());
  EXPECT_FALSE(file.Read());
}

TEST_F(FleetShippedTest, WhatWasWrittenIsRead) {
  {
    const ShippedFile file(Directory());
    file.Write(Shipped{});
    file.Write(shipped_);
    EXPECT_EQ(file.Read(), shipped_);
  }
  EXPECT_EQ(ShippedFile(Directory()).Read(), shipped_);
}

TEST_F(FleetShippedTest, WhatIsNotWholeIsNothing) {
  const ShippedFile file(Directory());
  file.Write(shipped_);
  const std::string whole = test::ReadFile(file.path());
  for (size_t size = 0; size + 2 < whole.size(); ++size) {
    std::ofstream(file.path()) << whole.substr(0, size);
    EXPECT_FALSE(file.Read()) << size;
  }
  for (const char* text : {"{}", "[]", "7", R"({"place":7})",
                           R"({"place":"x","last_message":"x","sequence":1,"time":1})"}) {
    std::ofstream(file.path()) << text;
    EXPECT_FALSE(file.Read()) << text;
  }
}

TEST_F(FleetShippedTest, ThereIsOneProcess) {
  const ShippedFile file(Directory());
  EXPECT_THROW(ShippedFile second(Directory()), zevctl::Failure);
}

TEST_F(FleetShippedTest, ADirectoryThatCannotBeMadeIsTold) {
  try {
    const ShippedFile file((directory_.path() / "no" / "state").string());
    FAIL();
  } catch (const zevctl::Failure& failure) {
    EXPECT_NE(std::string(failure.what()).find("cannot make the directory"), std::string::npos);
  }
}

}  // namespace

}  // namespace zevfleet
