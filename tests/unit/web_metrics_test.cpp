// The metrics, and the tokens with which they are read.
#include "web_metrics.h"

#include <gmock/gmock.h>

#include <ctime>
#include <filesystem>
#include <string>

#include "file_support.h"
#include "token_file.h"
#include "web_tokens.h"

namespace zevweb {
namespace {

using testing::HasSubstr;
using testing::Not;
using Format = MetricsText::Format;

constexpr time_t kNow = 1'000'000'000;

constexpr char kStats[] =
    R"({"started": 999999000, "console_bytes": 18446744073709551615, "console_lines": 3,
        "logins_refused": 2, "refusals_by_number": {"001": 2, "006": 1}, "journal": "stopped",
        "cpu_microseconds": 1500000, "memory_bytes": 4096, "last_reload": 999999500,
        "last_reload_result": "configuration failed"})";

constexpr char kStatus[] =
    R"({"console": "a\"b\\c", "state": "in-use", "since": 999999990, "last_output": 999999400,)"
    R"( "users": [{"user": "ann", "mode": "shared"}, {"user": "bob", "mode": "read-only"}]})"
    "\n"
    R"({"console": "quiet", "state": "connected", "since": 999999990, "last_output": null,)"
    R"( "users": []})"
    "\n"
    R"({"console": "dead", "state": "refused", "since": 999999990, "last_output": 5, "users": []})"
    "\n";

TEST(Metrics, TellWhatTheDaemonTells) {
  const std::string text = MetricsOf(kStatus, kStats, false, kNow, Format::kOpenMetrics);
  for (const char* line : {"zevd_up 1\n",
                           "zevd_consoles{state=\"in-use\"} 1\n",
                           "zevd_consoles{state=\"refused\"} 1\n",
                           "zevd_consoles{state=\"disabled\"} 0\n",
                           "zevd_users{mode=\"shared\"} 1\n",
                           "zevd_users{mode=\"exclusive\"} 0\n",
                           "zevd_refusals_total{number=\"006\"} 1\n",
                           "zevd_logins_refused_total 2\n",
                           "zevd_console_received_bytes_total 18446744073709551615\n",
                           "zevd_console_received_lines_total 3\n",
                           "zevd_journal_state{state=\"stopped\"} 1\n",
                           "zevd_journal_state{state=\"on\"} 0\n",
                           "zevd_cpu_seconds_total 1.5\n",
                           "zevd_memory_bytes 4096\n",
                           "zevd_last_reload_done 0\n",
                           "zevd_consoles_with_output_within{seconds=\"60\"} 0\n",
                           "zevd_consoles_with_output_within{seconds=\"600\"} 1\n",
                           "zevd_consoles_without_output 1\n",
                           "zevd_oldest_output_age_seconds 600\n",
                           "# TYPE zevd_refusals counter\n",
                           "# UNIT zevd_cpu_seconds seconds\n"}) {
    EXPECT_THAT(text, HasSubstr(line));
  }
  EXPECT_THAT(text, testing::EndsWith("\n# EOF\n"));
  EXPECT_THAT(text, Not(HasSubstr("console=")));
}

TEST(Metrics, HaveSeriesOfEachConsoleOnRequest) {
  const std::string text = MetricsOf(kStatus, kStats, true, kNow, Format::kPlain);
  for (const char* line : {"zevd_console_up{console=\"a\\\"b\\\\c\",state=\"in-use\"} 1\n",
                           "zevd_console_up{console=\"dead\",state=\"refused\"} 0\n",
                           "zevd_console_state_age_seconds{console=\"quiet\"} 10\n",
                           "zevd_console_output_age_seconds{console=\"dead\"} 999999995\n",
                           "zevd_console_users{console=\"a\\\"b\\\\c\"} 2\n",
                           "# TYPE zevd_refusals_total counter\n"}) {
    EXPECT_THAT(text, HasSubstr(line));
  }
  EXPECT_THAT(text, Not(HasSubstr("# UNIT")));
  EXPECT_THAT(text, Not(HasSubstr("# EOF")));
  EXPECT_THAT(text, Not(HasSubstr("zevd_console_output_age_seconds{console=\"quiet\"}")));
}

TEST(Metrics, NamesThatAreThereTwiceMakeOneSeries) {
  const std::string text =
      MetricsOf(std::string(kStatus) + kStatus, kStats, true, kNow, Format::kPlain);
  const size_t first = text.find("zevd_console_users{console=\"dead\"}");
  ASSERT_NE(first, std::string::npos);
  EXPECT_EQ(text.find("zevd_console_users{console=\"dead\"}", first + 1), std::string::npos);
  EXPECT_THAT(text, HasSubstr("zevd_consoles{state=\"refused\"} 2\n"));
}

TEST(Metrics, ADaemonThatIsAwayIsToldToo) {
  EXPECT_EQ(MetricsOf("", "", true, kNow, Format::kPlain),
            "# HELP zevd_up 1 while the daemon answers.\n# TYPE zevd_up gauge\nzevd_up 0\n");
}

TEST(Metrics, TheFormatIsTheClientsChoice) {
  EXPECT_EQ(FormatFor("application/openmetrics-text;version=1.0.0,text/plain;q=0.5"),
            Format::kOpenMetrics);
  EXPECT_EQ(FormatFor("text/html"), Format::kPlain);
  EXPECT_EQ(FormatFor(""), Format::kPlain);
}

// ---- Tokens -------------------------------------------------------------------------------------

zevctl::Token TokenOf(const std::string& name, const std::string& secret) {
  zevctl::Token token;
  token.name = name;
  token.made = time(nullptr);
  token.hash = zevctl::TokenHash(secret);
  return token;
}

TEST(WebTokens, AreReadAnewWhenTheyHaveChanged) {
  const test::TemporaryDirectory directory;
  const std::string path = directory.path() / zevctl::kTokenFile;
  WebTokens tokens(directory.path());
  EXPECT_EQ(tokens.TokenName("zev_1"), std::nullopt);
  test::WriteFile(path, zevctl::TokenText({TokenOf("one", "zev_1")}));
  EXPECT_EQ(tokens.TokenName("zev_1"), "one");
  EXPECT_EQ(tokens.TokenName("zev_2"), std::nullopt);
  EXPECT_EQ(tokens.TokenName(""), std::nullopt);
  EXPECT_EQ(tokens.TokenName(zevctl::TokenHash("zev_1")), std::nullopt);
  test::WriteFile(path, zevctl::TokenText({TokenOf("second", "zev_2")}));
  EXPECT_EQ(tokens.TokenName("zev_1"), std::nullopt);
  EXPECT_EQ(tokens.TokenName("zev_2"), "second");
  std::filesystem::remove(path);
  EXPECT_EQ(tokens.TokenName("zev_2"), std::nullopt);
}

TEST(WebTokens, Expire) {
  const test::TemporaryDirectory directory;
  zevctl::Token over = TokenOf("over", "zev_1");
  over.expires = time(nullptr) - 1;
  zevctl::Token valid = TokenOf("valid", "zev_2");
  valid.expires = time(nullptr) + 3600;
  test::WriteFile(directory.path() / zevctl::kTokenFile, zevctl::TokenText({over, valid}));
  WebTokens tokens(directory.path());
  EXPECT_EQ(tokens.TokenName("zev_1"), std::nullopt);
  EXPECT_EQ(tokens.TokenName("zev_2"), "valid");
}

TEST(WebTokens, AFileThatIsALinkHasNone) {
  const test::TemporaryDirectory directory;
  test::WriteFile(directory.path() / "elsewhere", zevctl::TokenText({TokenOf("one", "zev_1")}));
  std::filesystem::create_symlink("elsewhere", directory.path() / zevctl::kTokenFile);
  EXPECT_EQ(WebTokens(directory.path()).TokenName("zev_1"), std::nullopt);
}

TEST(TokenFile, ComesBackAsItWent) {
  zevctl::Token token = TokenOf("a.b-c_1", "x");
  token.expires = 5;
  const std::string text = zevctl::TokenText({token, TokenOf("d", "y")});
  size_t bad_line = 1;
  const auto tokens = zevctl::ParseTokens(text, &bad_line);
  EXPECT_EQ(bad_line, 0U);
  ASSERT_EQ(tokens.size(), 2U);
  EXPECT_EQ(tokens[0].expires, 5);
  EXPECT_EQ(zevctl::TokenText(tokens), text);
}

TEST(TokenFile, LeavesOutWhatIsNoToken) {
  const std::string good = "name 1 never " + std::string(64, 'a');
  for (const std::string& bad :
       {std::string("x"), "name 1 never " + std::string(63, 'a'),
        "name 1 soon " + std::string(64, 'a'), "na/me 1 never " + std::string(64, 'a'),
        "name 1 never " + std::string(64, 'A'), good + " x"}) {
    size_t bad_line = 0;
    EXPECT_EQ(zevctl::ParseTokens("# head\n" + good + "\n" + bad + "\n", &bad_line).size(), 1U)
        << bad;
    EXPECT_EQ(bad_line, 3U) << bad;
  }
}

TEST(TokenFile, SecretsAreLongAndDiffer) {
  const std::string secret = zevctl::MakeTokenSecret();
  EXPECT_EQ(secret.size(), 4U + 64U);
  EXPECT_NE(secret, zevctl::MakeTokenSecret());
}

}  // namespace
}  // namespace zevweb
