// What a typed name means among the consoles of a journal.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "exit_status.h"
#include "journal_consoles.h"

namespace zevctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

journal::Console Named(size_t id, const std::vector<std::string>& names, bool is_gone = false) {
  journal::Console console;
  console.id = id;
  console.is_gone = is_gone;
  for (const std::string& name : names) console.names.push_back({name, "127.0.0.1", 4000, 0});
  return console;
}

TEST(ChooseConsoles, TakesNamesStartsAndPatterns) {
  const std::vector consoles = {Named(0, {"web1"}), Named(1, {"web2"}), Named(2, {"db1"})};
  EXPECT_THAT(ChooseConsoles(consoles, {"WEB2"}).ids, ElementsAre(1));
  EXPECT_TRUE(ChooseConsoles(consoles, {"WEB2"}).by_name);
  EXPECT_THAT(ChooseConsoles(consoles, {"d"}).ids, ElementsAre(2));
  EXPECT_FALSE(ChooseConsoles(consoles, {"d"}).by_name);
  EXPECT_THAT(ChooseConsoles(consoles, {"db1", "web*"}).ids, ElementsAre(0, 1, 2));
  EXPECT_THROW(ChooseConsoles(consoles, {"web"}), Failure);
  EXPECT_THROW(ChooseConsoles(consoles, {"x*"}), Failure);
}

TEST(ChooseConsoles, FindsByEarlierNamesAndTellsThem) {
  const std::vector consoles = {Named(0, {"old", "older", "new"})};
  const ChosenConsoles chosen = ChooseConsoles(consoles, {"old"});
  EXPECT_THAT(chosen.ids, ElementsAre(0));
  EXPECT_THAT(chosen.names, ElementsAre("new", "old", "older"));
  EXPECT_THAT(chosen.remarks, ElementsAre("new was called old before"));
  EXPECT_THAT(ChooseConsoles(consoles, {"new"}).remarks, IsEmpty());
  EXPECT_THAT(ChooseConsoles(consoles, {"*"}).remarks, IsEmpty());
}

TEST(ChooseConsoles, MeansWhoeverHasTheNameNow) {
  const std::vector consoles = {Named(0, {"web", "db"}), Named(1, {"web"})};
  const ChosenConsoles chosen = ChooseConsoles(consoles, {"web"});
  EXPECT_THAT(chosen.ids, ElementsAre(1));
  EXPECT_THAT(chosen.remarks,
              ElementsAre("db was called web, too, before another console got that name"));
}

TEST(ChooseConsoles, LeavesOutEarlierNamesThatAreAnothersNow) {
  const std::vector consoles = {Named(0, {"web", "old", "db"}), Named(1, {"web"})};
  const ChosenConsoles chosen = ChooseConsoles(consoles, {"db"});
  EXPECT_THAT(chosen.ids, ElementsAre(0));
  EXPECT_THAT(chosen.names, ElementsAre("db", "old"));
  EXPECT_THAT(ChooseConsoles(consoles, {"db", "web"}).names, ElementsAre("db", "old", "web"));
}

TEST(ChooseConsoles, TakesBothConsolesOfOneName) {
  const std::vector consoles = {Named(0, {"web"}, true), Named(1, {"web"})};
  EXPECT_THAT(ChooseConsoles(consoles, {"web"}).names, ElementsAre("web"));
}

TEST(ChooseConsoles, TakesNamesThatOnlyTheLogsHave) {
  const ChosenConsoles chosen = ChooseConsoles({Named(0, {"web"})}, {"gone"}, {"gone", "web"});
  EXPECT_THAT(chosen.ids, IsEmpty());
  EXPECT_THAT(chosen.names, ElementsAre("gone"));
}

TEST(ChooseOneConsole, PrefersTheOneThatIsThere) {
  std::vector<std::string> remarks;
  const std::vector consoles = {Named(0, {"web"}, true), Named(1, {"web"}), Named(2, {"db"}, true)};
  EXPECT_EQ(ChooseOneConsole(consoles, "web", &remarks), 1);
  EXPECT_EQ(ChooseOneConsole(consoles, "d", &remarks), 2);
}

TEST(ChooseOneConsole, RefusesAnEarlierNameOfSeveral) {
  std::vector<std::string> remarks;
  const std::vector consoles = {Named(0, {"web", "db1"}), Named(1, {"web", "db2"})};
  try {
    ChooseOneConsole(consoles, "web", &remarks);
    FAIL() << "nothing was thrown";
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.status(), ExitStatus::kNoSuchConsole);
    EXPECT_THAT(failure.what(), HasSubstr("ask for one by its last name: db1 or db2"));
  }
}

}  // namespace
}  // namespace zevctl
