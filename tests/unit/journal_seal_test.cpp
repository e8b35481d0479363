// Seals: a hash that depends on everything that it is to guard.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "seal.h"

namespace journal {

namespace {

Hash HashOf(std::string_view text) {
  Sha256 sha;
  sha.Add(text);
  return sha.Take();
}

TEST(SealTest, HashesBySha256) {
  EXPECT_EQ("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",
            HashText(HashOf("")));
  Sha256 sha;
  sha.Add("a");
  sha.Add("bc");
  EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
            HashText(sha.Take()));
}

TEST(SealTest, ReadsTheTextOfAHash) {
  const Hash hash = HashOf("x");
  const std::string text = HashText(hash);
  EXPECT_EQ(hash, ParseHash(text));
  EXPECT_FALSE(ParseHash(text.substr(1)));
  EXPECT_FALSE(ParseHash(text + "0"));
  std::string changed = text;
  changed[3] = 'A';
  EXPECT_FALSE(ParseHash(changed));
  changed[3] = '\0';
  EXPECT_FALSE(ParseHash(changed));
}

TEST(SealTest, DependsOnAllOfItsParts) {
  const Seal seal = MakeSeal(HashOf("p"), 1, 2, HashOf("r"), "index");
  EXPECT_TRUE(IsSealOf(seal, 1, 2, "index"));
  EXPECT_FALSE(IsSealOf(seal, 3, 2, "index"));
  EXPECT_FALSE(IsSealOf(seal, 1, 3, "index"));
  EXPECT_FALSE(IsSealOf(seal, 1, 2, "indexx"));
  EXPECT_NE(seal.hash, MakeSeal(HashOf("q"), 1, 2, HashOf("r"), "index").hash);
  EXPECT_NE(seal.hash, MakeSeal(HashOf("p"), 1, 2, HashOf("s"), "index").hash);
}

TEST(SealTest, AnyByteThatIsChangedBreaksIt) {
  const std::string bytes = EncodeSeal(MakeSeal(HashOf("p"), 1, 2, HashOf("r"), "index"));
  ASSERT_EQ(kSealSize, bytes.size());
  EXPECT_TRUE(IsSealOf(DecodeSeal(bytes).value(), 1, 2, "index"));
  for (size_t i = 0; i < bytes.size(); ++i) {
    std::string changed = bytes;
    changed[i] = static_cast<char>(changed[i] ^ 0x20);
    EXPECT_FALSE(IsSealOf(DecodeSeal(changed).value(), 1, 2, "index")) << i;
  }
  EXPECT_FALSE(DecodeSeal(bytes.substr(1)));
  EXPECT_FALSE(DecodeSeal(bytes + "x"));
}

}  // namespace

}  // namespace journal
