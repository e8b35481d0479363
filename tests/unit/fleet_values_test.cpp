// The parts of zevfleet that know no other process: settings, files, values, locks, the deadline.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>

#include "config_zev.h"
#include "exit_status.h"
#include "fleet_clock.h"
#include "fleet_deadline.h"
#include "fleet_etcd.h"
#include "fleet_file.h"
#include "fleet_files.h"
#include "fleet_guard.h"
#include "fleet_holder.h"
#include "fleet_keeper.h"
#include "fleet_options.h"
#include "fleet_record.h"
#include "fleet_support.h"

namespace zevfleet {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

// ---- Settings -----------------------------------------------------------------------------------

std::vector<std::string> MistakesIn(const std::string& text) {
  zevctl::Findings findings;
  ReadFleetOptions(text, "f", findings);
  std::vector<std::string> words;
  for (const zevctl::Finding& finding : findings.Sorted()) words.push_back(finding.InWords());
  return words;
}

TEST(FleetOptionsTest, AllKeysAreRead) {
  zevctl::Findings findings;
  const FleetOptions options = ReadFleetOptions(
      "site = \"hall\"\nstation = \"st-1\"\naddress = \"192.0.2.1\"\nweb = \"https://a\"\n"
      "run_directory = \"/r\"\nstate_directory = \"/s\"\nmain_port = 7000\nreturn_seconds = 0\n"
      "[etcd]\nendpoints = [\"https://a:1\", \"http://b:2\"]\nca = \"/ca\"\ncertificate = \"/c\"\n"
      "key = \"/k\"\nuser = \"u\"\npassword_file = \"/p\"\nlease_seconds = 5\n"
      "[nats]\nurls = [\"nats://a:1\", \"tls://b:2\"]\nca = \"/nca\"\ncredentials = \"/creds\"\n"
      "replicas = 3\nkinds = [\"event\"]\nmax_bytes = 10\nmax_age_hours = 11\n",
      "f", findings);
  EXPECT_THAT(findings.Sorted(), IsEmpty());
  EXPECT_EQ(options.site, "hall");
  EXPECT_EQ(options.station, "st-1");
  EXPECT_EQ(options.address, "192.0.2.1");
  EXPECT_EQ(options.web, "https://a");
  EXPECT_EQ(options.LeaseFile(), "/r/lease");
  EXPECT_EQ(options.state_directory, "/s");
  EXPECT_EQ(options.main_port, 7000);
  EXPECT_EQ(options.return_seconds, 0);
  EXPECT_THAT(options.etcd.endpoints, ElementsAre("https://a:1", "http://b:2"));
  EXPECT_EQ(options.etcd.tls.ca, "/ca");
  EXPECT_EQ(options.etcd.tls.certificate, "/c");
  EXPECT_EQ(options.etcd.tls.key, "/k");
  EXPECT_EQ(options.etcd.user, "u");
  EXPECT_EQ(options.etcd.password_file, "/p");
  EXPECT_EQ(options.etcd.lease_seconds, 5);
  EXPECT_THAT(options.nats.urls, ElementsAre("nats://a:1", "tls://b:2"));
  EXPECT_EQ(options.nats.tls.ca, "/nca");
  EXPECT_EQ(options.nats.credentials, "/creds");
  EXPECT_EQ(options.nats.replicas, 3);
  EXPECT_THAT(options.nats.kinds, ElementsAre("event"));
  EXPECT_EQ(options.nats.max_bytes, 10);
  EXPECT_EQ(options.nats.max_age_hours, 11);
}

TEST(FleetOptionsTest, TheAddressIsTheHostsIfItIsNotGiven) {
  zevctl::Findings findings;
  char name[256] = "";
  gethostname(name, sizeof name - 1);
  EXPECT_EQ(ReadFleetOptions("site = \"a\"\nstation = \"b\"\n", "f", findings).address, name);
}

TEST(FleetOptionsTest, AWrongValueIsNamedWithWhatWouldBeRight) {
  EXPECT_THAT(MistakesIn("station = 1\n"),
              ElementsAre("f:1:11: error: bad \"station\"; write a word of letters, digits, \"-\" "
                          "and \"_\", in quotes"));
  EXPECT_THAT(MistakesIn("run_directory = \"x\"\n"),
              ElementsAre("f:1:17: error: bad \"run_directory\"; write a path that begins with "
                          "\"/\", in quotes"));
  EXPECT_THAT(MistakesIn("web = \"ftp://x\"\n"),
              ElementsAre("f:1:7: error: bad \"web\"; write an address that begins with "
                          "\"https://\", in quotes"));
  EXPECT_THAT(MistakesIn("[nats]\nkinds = [\"in\"]\n"),
              ElementsAre("f:2:9: error: bad \"kinds\"; write some of [\"out\", \"event\", "
                          "\"state\", \"audit\"]"));
  EXPECT_THAT(MistakesIn("etcd = 1\n"),
              ElementsAre("f:1:8: error: bad \"etcd\"; write a table: its name in brackets, on its "
                          "own line"));
}

TEST(FleetOptionsTest, NamesAreOneWord) {
  EXPECT_TRUE(IsPlainName("St_1-a"));
  EXPECT_TRUE(IsPlainName(std::string(64, 'x')));
  EXPECT_FALSE(IsPlainName(std::string(65, 'x')));
  for (const char* name : {"", "a.b", "a/b", "a b", "\xC3\xA4"}) EXPECT_FALSE(IsPlainName(name));
}

// ---- Values -------------------------------------------------------------------------------------

TEST(FleetRecordTest, ValuesComeBackAsTheyWere) {
  const SharedConsole console = ConsoleFor("box", {"st1", "st2"}, true, true);
  EXPECT_EQ(DecodeConsole("box", Encode(console)), console);
  const ConsoleClaim claim{"st1", "i"};
  EXPECT_EQ(DecodeClaim(Encode(claim)), claim);
  const FleetStation station{"st1", "i", "192.0.2.1", "https://a", "1.0", true, 7};
  EXPECT_EQ(DecodeStation("st1", Encode(station)), station);
  const auto fleet = DecodeIdentity(Encode(FleetIdentity{.id = "x"}));
  ASSERT_TRUE(fleet);
  EXPECT_EQ(fleet->format, kFleetFormat);
  EXPECT_EQ(fleet->id, "x");
}

TEST(FleetRecordTest, ANameMayHaveAnyBytes) {
  const std::string name = "b\xC3\xA4\xFF";
  SharedConsole console = ConsoleFor("box", {});
  console.line.replace(0, 3, name);
  EXPECT_EQ(DecodeConsole(name, Encode(console))->name, name);
}

TEST(FleetRecordTest, AnythingElseIsNothing) {
  const std::string good = Encode(ConsoleFor("box", {"st1"}));
  EXPECT_TRUE(DecodeConsole("box", good));
  EXPECT_FALSE(DecodeConsole("other", good));
  EXPECT_FALSE(DecodeConsole("box", ""));
  EXPECT_FALSE(DecodeConsole("box", "[]"));
  EXPECT_FALSE(DecodeConsole("box", Encode(ConsoleFor("box", {"a b"}))));
  EXPECT_FALSE(DecodeConsole(
      "box", R"({"line": "half a line", "stations": [], "others": true, "told": false})"));
  EXPECT_FALSE(DecodeClaim(R"({"station": 1, "instance": "i"})"));
  EXPECT_FALSE(DecodeClaim(R"({"station": "st1"})"));
  EXPECT_FALSE(DecodeStation("st1", R"({"instance": "i"})"));
  EXPECT_FALSE(DecodeIdentity(R"({"format": 1, "id": ""})"));
  EXPECT_FALSE(DecodeIdentity(R"({"format": -1, "id": "x"})"));
  EXPECT_FALSE(DecodeIdentity(std::string(100000, '[')));
}

// ---- The fleet file -----------------------------------------------------------------------------

TEST(FleetFileTest, AConsolesOwnStationsComeBeforeItsGroupsAndThoseBeforeTheDefaults) {
  zevctl::Findings findings;
  const FleetFile file = ReadFleetFile(
      "fleet = \"hall\"\n[defaults]\nstations = [\"d\"]\n[group.g]\nstations = [\"g\", \"*\"]\n"
      "[[console]]\nname = \"a-[1-2]\"\ntcp = \"192.0.2.1:[1-2]\"\nstations = [\"x\", \"y\"]\n"
      "[[console]]\nname = \"b\"\ntcp = \"192.0.2.1:3\"\ngroup = \"g\"\n"
      "[[console]]\nname = \"c\"\ntcp = \"192.0.2.1:4\"\n",
      "f", findings);
  EXPECT_THAT(findings.Sorted(), IsEmpty());
  EXPECT_EQ(file.fleet, "hall");
  ASSERT_EQ(file.consoles.size(), 4U);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_THAT(file.consoles[i].stations, ElementsAre("x", "y"));
    EXPECT_FALSE(file.consoles[i].others);
  }
  EXPECT_EQ(file.consoles[1].name, "a-2");
  EXPECT_EQ(file.consoles[1].line, "a-2 192.0.2.1 2 0 0 - - \"-\" 1 1 1 1 \"\"");
  EXPECT_THAT(file.consoles[2].stations, ElementsAre("g"));
  EXPECT_TRUE(file.consoles[2].others);
  EXPECT_THAT(file.consoles[3].stations, ElementsAre("d"));
  EXPECT_FALSE(file.consoles[3].others);
}

TEST(FleetFileTest, WithoutStationsAnyMayHaveIt) {
  zevctl::Findings findings;
  const FleetFile file = ReadFleetFile(
      "fleet = \"hall\"\n[[console]]\nname = \"a\"\ntcp = \"192.0.2.1:1\"\n", "f", findings);
  ASSERT_EQ(file.consoles.size(), 1U);
  EXPECT_THAT(file.consoles[0].stations, IsEmpty());
  EXPECT_TRUE(file.consoles[0].others);
}

struct BadFile {
  const char* text;
  const char* mistake;
};

class BadFleetFileTest : public testing::TestWithParam<BadFile> {};

TEST_P(BadFleetFileTest, IsNamed) {
  zevctl::Findings findings;
  ReadFleetFile(GetParam().text, "f", findings);
  ASSERT_FALSE(findings.Sorted().empty());
  EXPECT_EQ(findings.Sorted().front().InWords(), GetParam().mistake);
}

constexpr char kConsoleA[] = "[[console]]\nname = \"a\"\ntcp = \"192.0.2.1:1\"\n";

INSTANTIATE_TEST_SUITE_P(
    All, BadFleetFileTest,
    testing::Values(
        BadFile{"", "f: error: no \"fleet\"; write fleet = \"NAME\" at the top"},
        BadFile{"fleet = \"a b\"\n",
                "f:1:9: error: bad \"fleet\"; write a word of letters, digits, \"-\" and \"_\", in "
                "quotes"},
        BadFile{"fleet = \"f\"\n[defaults]\nstations = \"st1\"\n",
                "f:3:12: error: bad \"stations\"; write names of stations in brackets, the best "
                "one first, such as [\"st1\", \"st2\"]; \"*\" at the end stands for all others"},
        BadFile{"fleet = \"f\"\n[defaults]\nstations = [\"*\", \"st1\"]\n",
                "f:3:18: error: bad \"stations\"; write names of stations in brackets, the best "
                "one first, such as [\"st1\", \"st2\"]; \"*\" at the end stands for all others"},
        BadFile{"fleet = \"f\"\n[defaults]\nstations = [\"st1\", \"st1\"]\n",
                "f:3:20: error: the station \"st1\" is named twice; name it once"},
        BadFile{"fleet = \"f\"\n[[console]]\nname = \"a\"\nserial = \"/dev/ttyS0\"\n",
                "f:4:10: error: the console \"a\" is at a line of one station; a console of a "
                "fleet is reached by tcp"}));

TEST(FleetFileTest, AConsoleThatIsThereTwiceIsNamed) {
  zevctl::Findings findings;
  ReadFleetFile(std::string("fleet = \"f\"\n") + kConsoleA + kConsoleA, "f", findings);
  EXPECT_GT(findings.errors(), 0U);
}

// ---- The daemon's files -------------------------------------------------------------------------

TEST(FleetFilesTest, OnlyLinesOfTheseAddressesGo) {
  const std::string rest = LineFor("b", 2002) + " \n";
  const std::string all = LineFor("a", 2001) + " \n" + rest;
  EXPECT_EQ(WithoutConsoles(all, {"192.0.2.1:2001"}), rest);
  EXPECT_EQ(WithoutConsoles("# mine\nnot a line\n" + all, {"192.0.2.1:2001"}),
            "# mine\nnot a line\n" + rest);
  EXPECT_EQ(WithoutConsoles(all, {}), all);
}

TEST(FleetFilesTest, AFileThatWasAppliedStaysOne) {
  const std::string all =
      zevctl::WriteZevConf({*ParseLine(LineFor("a", 1)), *ParseLine(LineFor("b", 2))});
  const std::string text = WithoutConsoles(all, {"192.0.2.1:1"});
  EXPECT_EQ(zevctl::OriginOf(text), zevctl::ZevConfOrigin::kApplied);
  EXPECT_EQ(text, zevctl::WriteZevConf({*ParseLine(LineFor("b", 2))}));
}

// ---- etcd ---------------------------------------------------------------------------------------

TEST(FleetEtcdTest, TheEndOfAPrefixIsBehindAllThatBeginWithIt) {
  EXPECT_EQ(EndOfPrefix("/a/"), "/a0");
  EXPECT_EQ(EndOfPrefix("a\xFF"), "b");
  EXPECT_EQ(EndOfPrefix("\xFF"), std::string(1, '\0'));
}

TEST(FleetEtcdTest, NumbersAreTextsAndZerosAreLeftOut) {
  const Json object = {{"a", "12"}, {"b", 13},      {"c", "-5"},
                       {"d", "x"},  {"e", nullptr}, {"f", "18446744073709551615"}};
  EXPECT_EQ(NumberIn(object, "a"), 12);
  EXPECT_EQ(NumberIn(object, "b"), 13);
  EXPECT_EQ(NumberIn(object, "c"), -5);
  EXPECT_EQ(NumberIn(object, "d"), 0);
  EXPECT_EQ(NumberIn(object, "e"), 0);
  EXPECT_EQ(NumberIn(object, "f"), -1);
  EXPECT_EQ(NumberIn(object, "none"), 0);
}

TEST(FleetEtcdTest, AKeyIsDecoded) {
  const EtcdKey key =
      DecodeKey({{"key", "YQ=="}, {"value", "AP8="}, {"mod_revision", "3"}, {"lease", "4"}});
  EXPECT_EQ(key.key, "a");
  EXPECT_EQ(key.value, std::string("\0\xFF", 2));
  EXPECT_EQ(key.create_revision, 0);
  EXPECT_EQ(key.mod_revision, 3);
  EXPECT_EQ(key.lease, 4);
  EXPECT_EQ(DecodeKey({{"key", "!!"}}).key, "");
}

TEST(FleetEtcdTest, ATransactionIsWhatTheInterfaceWants) {
  const Json request = EtcdTransaction()
                           .IfMissing("a")
                           .IfUnchanged("b", 2)
                           .IfOfLease("c", 3)
                           .Put("a", "v", 3)
                           .Delete("b")
                           .Request();
  EXPECT_EQ(request, Json::parse(R"({"compare": [
      {"key": "YQ==", "target": "CREATE", "result": "EQUAL", "create_revision": "0"},
      {"key": "Yg==", "target": "MOD", "result": "EQUAL", "mod_revision": "2"},
      {"key": "Yw==", "target": "LEASE", "result": "EQUAL", "lease": "3"}],
    "success": [
      {"request_put": {"key": "YQ==", "value": "dg==", "lease": "3"}},
      {"request_delete_range": {"key": "Yg=="}}]})"));
}

// ---- The deadline and the guard -----------------------------------------------------------------

class FleetDeadlineTest : public testing::Test {
 protected:
  std::string path_ = testing::TempDir() + "/lease-" + std::to_string(getpid());
  ~FleetDeadlineTest() override { unlink(path_.c_str()); }
};

TEST_F(FleetDeadlineTest, AReaderSeesWhatTheWriterSays) {
  EXPECT_FALSE(DeadlineFile::ForReading(path_));
  DeadlineFile writer = DeadlineFile::ForWriting(path_, true);
  const auto reader = DeadlineFile::ForReading(path_);
  ASSERT_TRUE(reader);
  EXPECT_TRUE(reader->Get().holds);
  EXPECT_EQ(reader->Get().deadline, 0);
  writer.SetDeadline(5);
  writer.SetHolds(false);
  writer.SetLease(-6);
  EXPECT_EQ(reader->Get().deadline, 5);
  EXPECT_FALSE(reader->Get().holds);
  EXPECT_EQ(reader->Get().lease, -6);
  // The next writer goes on with it.
  EXPECT_EQ(DeadlineFile::ForWriting(path_, true).Get().deadline, 5);
}

TEST_F(FleetDeadlineTest, AnotherFileIsNone) {
  DeadlineFile::ForWriting(path_, false).SetDeadline(5);
  std::fstream file(path_, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(3);
  file.put('?');
  file.close();
  EXPECT_FALSE(DeadlineFile::ForReading(path_));
  EXPECT_EQ(DeadlineFile::ForWriting(path_, false).Get().deadline, 0);
  std::ofstream(path_, std::ios::trunc) << "short";
  EXPECT_FALSE(DeadlineFile::ForReading(path_));
  EXPECT_TRUE(DeadlineFile::ForWriting(path_, true).Get().holds);
}

TEST(FleetGuardTest, NothingEndsBeforeTheDeadline) {
  const LeaseState state{.deadline = 100, .holds = true};
  EXPECT_FALSE(Judge(state, 99).run);
  EXPECT_FALSE(Judge(state, 99).daemon);
  EXPECT_TRUE(Judge(state, 100).run);
  EXPECT_TRUE(Judge(state, 100).daemon);
}

TEST(FleetGuardTest, ADaemonWithoutConsolesOfTheFleetStays) {
  EXPECT_TRUE(Judge({.deadline = 100, .holds = false}, 100).run);
  EXPECT_FALSE(Judge({.deadline = 100, .holds = false}, 100).daemon);
}

TEST(FleetKeeperTest, TheMarginIsAFifthAndASecondAtLeast) {
  EXPECT_EQ(LeaseMargin(5), kSecond);
  EXPECT_EQ(LeaseMargin(10), 2 * kSecond);
  EXPECT_EQ(LeaseMargin(3600), 720 * kSecond);
}

// ---- Who holds a lock ---------------------------------------------------------------------------

TEST(FleetHolderTest, TheHolderIsInTheKernelsList) {
  constexpr char kLocks[] =
      "1: POSIX  ADVISORY  WRITE 11 00:1f:77 0 EOF\n"
      "2: FLOCK  ADVISORY  WRITE 12 00:1f:78 0 EOF\n"
      "2: -> FLOCK  ADVISORY  WRITE 13 00:1f:77 0 EOF\n"
      "3: FLOCK  ADVISORY  WRITE 14 00:1f:77 0 EOF\n"
      "4: FLOCK  ADVISORY  WRITE 15 00:2f:77 0 EOF\n"
      "5: FLOCK  ADVISORY  WRITE 16 00:1f:177 0 EOF\n";
  const dev_t device = 0x1f;
  EXPECT_THAT(FindHolders(kLocks, device, 77).exact, Optional(14));
  EXPECT_THAT(FindHolders(kLocks, device, 77).similar, ElementsAre(14, 15));
  EXPECT_THAT(FindHolders(kLocks, device, 78).exact, Optional(12));
  EXPECT_EQ(FindHolders(kLocks, 0x3f, 77).exact, std::nullopt);
  EXPECT_THAT(FindHolders(kLocks, 0x3f, 77).similar, ElementsAre(14, 15));
  EXPECT_THAT(FindHolders("", device, 77).similar, IsEmpty());
}

TEST(FleetHolderTest, TheStartStandsBehindTheNameWhateverThatIs) {
  EXPECT_THAT(StartTicksIn("7 (a) b) c) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 4711 20"),
              Optional(4711));
  EXPECT_EQ(StartTicksIn("7 (a) S 1 2 3"), std::nullopt);
  EXPECT_EQ(StartTicksIn(""), std::nullopt);
}

TEST(FleetHolderTest, ThisProcessIsFoundWithItsStart) {
  const std::string path = testing::TempDir() + "/lock-" + std::to_string(getpid());
  EXPECT_FALSE(IsLocked(path));
  {
    const OwnLock lock(path, "it");
    const auto holder = LockHolder::Find(path);
    ASSERT_TRUE(holder);
    EXPECT_EQ(holder->pid(), getpid());
    const auto started = holder->Started();
    ASSERT_TRUE(started);
    EXPECT_LE(*started, BootNow());
    EXPECT_GT(*started, 0);
    EXPECT_THROW(OwnLock(path, "it"), zevctl::Failure);
  }
  EXPECT_FALSE(LockHolder::Find(path));
  unlink(path.c_str());
}

}  // namespace
}  // namespace zevfleet
