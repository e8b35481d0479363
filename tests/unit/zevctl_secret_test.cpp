#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "secret.h"

namespace zevctl {

namespace {

void Add(Secret& secret, const std::string& text) {
  for (const char byte : text) ASSERT_TRUE(secret.Append(byte));
}

TEST(ZevctlSecretTest, IsALine) {
  Secret secret;
  EXPECT_EQ(secret.Line(), "\n");
  Add(secret, "pass word");
  EXPECT_EQ(secret.Text(), "pass word");
  EXPECT_EQ(secret.Line(), "pass word\n");
}

TEST(ZevctlSecretTest, StaysInItsPlaceWhenMoved) {
  Secret secret;
  Add(secret, "short");
  const char* place = secret.Text().data();
  const Secret moved = std::move(secret);
  EXPECT_EQ(moved.Text().data(), place);
  EXPECT_EQ(moved.Text(), "short");
}

TEST(ZevctlSecretTest, TakesNoMoreThanTheDaemonDoes) {
  Secret secret;
  Add(secret, std::string(Secret::kLongest, 'x'));
  EXPECT_FALSE(secret.Append('y'));
  EXPECT_EQ(secret.Line(), std::string(Secret::kLongest, 'x') + "\n");
}

TEST(ZevctlSecretTest, WipesWhatIsCleared) {
  Secret secret;
  Add(secret, "password");
  const std::string_view place(secret.Text().data(), Secret::kLongest);
  secret.Clear();
  EXPECT_EQ(secret.Line(), "\n");
  EXPECT_EQ(place, "\n" + std::string(Secret::kLongest - 1, '\0'));
  Add(secret, "new");
  EXPECT_EQ(secret.Line(), "new\n");
}

}  // namespace

}  // namespace zevctl
