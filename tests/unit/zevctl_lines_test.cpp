// Lines: operators' texts, what is wrong with them, and what the line server gets.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "line_words.h"
#include "lines.h"

namespace zevctl {
namespace {

using Words = std::vector<std::string>;

/// A file of its own, with a password in it.
class PasswordFile {
 public:
  explicit PasswordFile(const std::string& text) {
    const int descriptor = mkstemps(name_.data(), 7);
    EXPECT_GE(descriptor, 0);
    close(descriptor);
    std::ofstream(name_) << text;
  }
  PasswordFile(const PasswordFile&) = delete;
  PasswordFile& operator=(const PasswordFile&) = delete;
  ~PasswordFile() { unlink(name_.c_str()); }

  const std::string& name() const { return name_; }

 private:
  std::string name_ = testing::TempDir() + "zevctl_lines_XXXXXX.secret";
};

std::string MistakeOf(LineKind kind, const std::string& target, const std::string& secret = "") {
  return LineMistake(Line{"box", kind, target, secret, kFirstLinePort});
}

std::string ConnectorOf(LineKind kind, const std::string& target, const std::string& secret = "") {
  const std::string yaml = LinesYaml({Line{"box", kind, target, secret, kFirstLinePort}});
  const std::string key = "  connector: ";
  const size_t start = yaml.find(key) + key.size();
  return yaml.substr(start, yaml.find('\n', start) - start);
}

std::string IpmiMistakeWith(const std::string& password) {
  const PasswordFile file(password);
  return MistakeOf(LineKind::kIpmi, "bmc", file.name());
}

// ---- Words --------------------------------------------------------------------------------------

TEST(SplitCommand, SplitsAtBlanks) {
  EXPECT_EQ(SplitCommand(" virsh  console\tvm1 "), (Words{"virsh", "console", "vm1"}));
  EXPECT_EQ(SplitCommand(""), Words{});
}

TEST(SplitCommand, KeepsWhatIsQuoted) {
  EXPECT_EQ(SplitCommand(R"(sh -c 'a "b" \c' "it's" "q\"q" a\ b '')"),
            (Words{"sh", "-c", R"(a "b" \c)", "it's", "q\"q", "a b", ""}));
}

TEST(SplitCommand, ExpandsNothing) {
  EXPECT_EQ(SplitCommand("echo $HOME `id` *; a|b"), (Words{"echo", "$HOME", "`id`", "*;", "a|b"}));
}

TEST(SplitCommand, RefusesAnOpenQuotation) {
  EXPECT_FALSE(SplitCommand("echo 'a"));
  EXPECT_FALSE(SplitCommand("echo \"a"));
  EXPECT_FALSE(SplitCommand("echo a\\"));
}

TEST(QuotedScalar, DoublesQuotesAndKeepsNamesAndFilesAway) {
  EXPECT_EQ(QuotedScalar("it's"), "'it''s'");
  EXPECT_EQ(QuotedScalar("*(a *{/etc/passwd} **( *a ("), "'*(*a *{*/etc/passwd} **(* *a ('");
}

TEST(IsPlainText, RefusesWhatYamlCannotHold) {
  EXPECT_TRUE(IsPlainText("gr\xc3\xbc\xc3\x9f dich"));
  for (const char* text : {"a\nb", "a\x1b", "\xff", "\xc2\x85", "\xe2\x80\xa8", "\xef\xbb\xbf"}) {
    EXPECT_FALSE(IsPlainText(text)) << text;
  }
  EXPECT_FALSE(IsPlainText(std::string("a\0b", 3)));
}

TEST(IpmiTarget, HasDefaults) {
  const auto target = ReadIpmiTarget("bmc-db1");
  ASSERT_TRUE(target);
  EXPECT_EQ(target->user, "");
  EXPECT_EQ(target->host, "bmc-db1");
  EXPECT_EQ(target->port, 623);
  EXPECT_EQ(target->speed, "115200");
}

TEST(IpmiTarget, MayNameEverything) {
  const auto target = ReadIpmiTarget("admin@10.0.0.7:6230,9600");
  ASSERT_TRUE(target);
  EXPECT_EQ(target->user, "admin");
  EXPECT_EQ(target->host, "10.0.0.7");
  EXPECT_EQ(target->port, 6230);
  EXPECT_EQ(target->speed, "9600");
}

// ---- Mistakes -----------------------------------------------------------------------------------

TEST(LineMistake, TakesSerialPorts) {
  for (const char* target : {"/dev/ttyUSB0", "/dev/ttyUSB0,115200n8", "/dev/ttyS1,9600N81,rtscts",
                             "/dev/serial/by-id/usb-A_B-if00-port0,9600,local=false,dtr=off"}) {
    EXPECT_EQ(MistakeOf(LineKind::kSerial, target), "") << target;
  }
}

TEST(LineMistake, RefusesWhatIsNoSerialPort) {
  for (const char* target : {"", "ttyUSB0", "/etc/passwd", "/dev/ttyS0,fast", "/dev/ttyS0,9600x8",
                             "/dev/ttyS0 9600", "/dev/ttyS0,9600,wronly", "/dev/ttyS0,9600,"}) {
    EXPECT_NE(MistakeOf(LineKind::kSerial, target), "") << target;
  }
}

TEST(LineMistake, TakesCommands) {
  EXPECT_EQ(MistakeOf(LineKind::kExec, "virsh console vm1"), "");
  EXPECT_NE(MistakeOf(LineKind::kExec, ""), "");
  EXPECT_NE(MistakeOf(LineKind::kExec, "'' a"), "");
  EXPECT_NE(MistakeOf(LineKind::kExec, "sh -c 'a"), "");
  EXPECT_NE(MistakeOf(LineKind::kExec, "-sh"), "");
  EXPECT_NE(MistakeOf(LineKind::kExec, "echo a\nb"), "");
}

TEST(LineMistake, TakesNoOptionForADestination) {
  EXPECT_EQ(MistakeOf(LineKind::kSsh, "admin@ts1"), "");
  EXPECT_EQ(MistakeOf(LineKind::kSsh, "ssh://admin@ts1:2222"), "");
  for (const char* target : {"", "-oProxyCommand=id", "a@-b", "a b", "a@b:22", "ssh://a@b:x"}) {
    EXPECT_NE(MistakeOf(LineKind::kSsh, target), "") << target;
  }
  const PasswordFile file("secret\n");
  EXPECT_EQ(MistakeOf(LineKind::kIpmi, "admin@bmc-db1", file.name()), "");
  for (const char* target : {"", "-H x", "a b", "bmc -P x", "bmc:99999", "bmc:0", "bmc,300"}) {
    EXPECT_NE(MistakeOf(LineKind::kIpmi, target, file.name()), "") << target;
  }
}

TEST(LineMistake, WantsAPasswordThatTheLineServerTakes) {
  EXPECT_EQ(IpmiMistakeWith("p \"w\\)\n"), "");
  EXPECT_EQ(IpmiMistakeWith("no line end"), "");
  for (const char* password : {"", "\n", "a,b\n", "a\x01\n", "123456789012345678901\n"}) {
    EXPECT_NE(IpmiMistakeWith(password), "") << password;
  }
  EXPECT_NE(MistakeOf(LineKind::kIpmi, "bmc"), "");
  EXPECT_NE(MistakeOf(LineKind::kIpmi, "bmc", "/nonexistent"), "");
  EXPECT_NE(MistakeOf(LineKind::kIpmi, "bmc", "/"), "");
}

// ---- The file -----------------------------------------------------------------------------------

TEST(LinesYaml, HoldsEachLine) {
  EXPECT_EQ(LinesYaml({Line{"db 1", LineKind::kSerial, "/dev/ttyS0,9600N81,rtscts", "", 10007}}),
            "%YAML 1.1\n"
            "# Written by \"zevctl config apply\", and written over.\n"
            "---\n"
            "connection: &db_1_10007\n"
            "  accepter: 'telnet(rfc2217=false),tcp(nodelay),127.65.0.1,10007'\n"
            "  connector: 'serialdev,/dev/ttyS0,local,9600N81,rtscts'\n"
            "  options:\n"
            "    max-connections: 1\n"
            "    mdns: false\n");
}

TEST(LinesYaml, RunsACommandWithoutAShell) {
  EXPECT_EQ(ConnectorOf(LineKind::kExec, R"(sh -c "it's" 'a"b\c' *{/etc/passwd})"),
            R"('pty(readbuf=10001),"sh" "-c" "it''s" "a\"b\\c" "*{*/etc/passwd}"')");
}

TEST(LinesYaml, ConnectsBySsh) {
  const std::string connector = ConnectorOf(LineKind::kSsh, "admin@ts1");
  EXPECT_NE(connector.find(R"("ssh" "-tt" )"), std::string::npos);
  EXPECT_NE(connector.find(R"("BatchMode=yes")"), std::string::npos);
  EXPECT_NE(connector.find(R"( "--" "admin@ts1"')"), std::string::npos);
}

TEST(LinesYaml, HoldsThePassword) {
  const PasswordFile file("p '\"\\*{w\nsecond\n");
  EXPECT_EQ(ConnectorOf(LineKind::kIpmi, "adm@bmc:6230", file.name()),
            R"('ipmisol,lan -U "adm" -P "p ''\"\\*{*w" -p 6230 bmc,115200')");
}

TEST(BlocksOf, FindsEachLineByItsPort) {
  const Line first{"a_1", LineKind::kExec, "cat", "", 10001};
  const Line second{"b", LineKind::kExec, "connection: &x_7", "", 10002};
  const auto blocks = BlocksOf(LinesYaml({first, second}));
  EXPECT_EQ(blocks.size(), 2U);
  EXPECT_EQ(blocks.at("10001"), BlocksOf(LinesYaml({first})).at("10001"));
  const Line other{"b", LineKind::kExec, "dd", "", 10002};
  EXPECT_NE(blocks.at("10002"), BlocksOf(LinesYaml({other})).at("10002"));
  EXPECT_TRUE(BlocksOf("").empty());
}

TEST(LinesYaml, ThrowsWhenThePasswordHasGone) {
  const Line line{"box", LineKind::kIpmi, "bmc", "/nonexistent", kFirstLinePort};
  EXPECT_THROW(static_cast<void>(LinesYaml({line})), std::runtime_error);
}

}  // namespace
}  // namespace zevctl
