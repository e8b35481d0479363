// The record of a console, lists of such records, and text fields.
#include "console.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "debug_support.h"
#include "event_set.h"
#include "failure_support.h"
#include "options.h"
#include "relay_support.h"

using namespace zevd;

namespace {

using ::testing::ElementsAre;

// ---- Text fields --------------------------------------------------------------------------------

TEST(CopyTextTest, CopiesWhatFits) {
  char field[5];
  CopyText(field, "abcd");
  EXPECT_STREQ(field, "abcd");
  CopyText(field, "");
  EXPECT_STREQ(field, "");
}

TEST(CopyTextTest, CutsAndTerminates) {
  char field[6] = "#####";
  CopyText(field, 5, "abcdefgh");
  EXPECT_STREQ(field, "abcd");
  EXPECT_EQ(field[5], '\0');
  CopyText(field, 1, "x");
  EXPECT_STREQ(field, "");
}

TEST(CopyTextTest, FieldsHoldWhatTheirSizesSay) {
  EXPECT_EQ(kNameSize, 65U);
  EXPECT_EQ(kUserNameSize, 33U);
}

// ---- The record ---------------------------------------------------------------------------------

using ConsoleTest = test::RelayTest;

TEST_F(ConsoleTest, NewConsoleIsNotConnected) {
  const test::ConsolePtr cnode = test::MakeConsole("mycons");
  EXPECT_EQ(cnode->sock, -1);
  EXPECT_EQ(cnode->log_fd, -1);
  EXPECT_EQ(cnode->status, kNotConnected);
  EXPECT_EQ(cnode->deleted, 0);
  EXPECT_EQ(cnode->ref_count, 0);
  EXPECT_EQ(cnode->force, 0);
  EXPECT_EQ(cnode->check_for_NET_E_msg, 0);
  EXPECT_EQ(cnode->lfca_time, 0);
  EXPECT_EQ(cnode->lsca_time, 0);
  EXPECT_STREQ(cnode->telnet_cmd, "");
  EXPECT_STREQ(cnode->pellox_port_holder_ipaddr, "");
  EXPECT_EQ(cnode->log_buf.buf[0], '\0');
  EXPECT_EQ(cnode->log_buf.count, 0);
  EXPECT_EQ(cnode->enode, nullptr);
}

TEST_F(ConsoleTest, StatusValuesAreThoseOnTheWire) {
  EXPECT_EQ(kConnected, 0);
  EXPECT_EQ(kInProgress, 1);
  EXPECT_EQ(kRefused, 2);
  EXPECT_EQ(kNotConnected, 3);
}

TEST_F(ConsoleTest, NewConsoleTakesItsSettings) {
  EventSetNode enode{};
  ConsoleSettings settings = test::Settings("mycons");
  CopyText(settings.pname, "sys1");
  CopyText(settings.ipaddr, "10.1.2.3");
  CopyText(settings.model, "M100");
  settings.cons_port = 2001;
  settings.mgmt_port = 23;
  settings.mapped_port = 65535;
  settings.logging = 2;
  settings.events = 3;
  settings.enable = 4;
  settings.auth = 5;
  settings.enode = &enode;
  const test::ConsolePtr cnode(NewConsoleNode(settings));
  EXPECT_STREQ(cnode->cname, "mycons");
  EXPECT_STREQ(cnode->pname, "sys1");
  EXPECT_STREQ(cnode->ipaddr, "10.1.2.3");
  EXPECT_STREQ(cnode->model, "M100");
  EXPECT_EQ(cnode->cons_port, 2001);
  EXPECT_EQ(cnode->mgmt_port, 23);
  EXPECT_EQ(cnode->mapped_port, 65535);
  EXPECT_EQ(cnode->logging, 2);
  EXPECT_EQ(cnode->events, 3);
  EXPECT_EQ(cnode->enable, 4);
  EXPECT_EQ(cnode->auth, 5);
  EXPECT_EQ(cnode->enode, &enode);
}

TEST_F(ConsoleTest, TextsAreCutTo64Characters) {
  const std::string text(65, 'x');
  ConsoleSettings settings = test::Settings(text.c_str());
  CopyText(settings.pname, text.c_str());
  CopyText(settings.ipaddr, text.c_str());
  CopyText(settings.model, text.c_str());
  const test::ConsolePtr cnode(NewConsoleNode(settings));
  for (const char* field : {cnode->cname, cnode->pname, cnode->ipaddr, cnode->model}) {
    EXPECT_EQ(field, std::string(64, 'x'));
  }
}

TEST_F(ConsoleTest, NewConsoleHasAnEmptyUserList) {
  const test::ConsolePtr cnode = test::MakeConsole("mycons");
  EXPECT_STREQ(cnode->user_list->list_name, "console's user list");
  EXPECT_EQ(cnode->user_list->head, nullptr);
  EXPECT_EQ(cnode->user_list->tail, nullptr);
  EXPECT_EQ(cnode->user_list->count, 0);
}

TEST_F(ConsoleTest, RingIsMadeWhenItHasASize) {
  EXPECT_EQ(test::MakeConsole("without")->cons_buf.buf, nullptr);
  cons_buf_size = 16;
  const test::ConsolePtr cnode = test::MakeConsole("with");
  ASSERT_NE(cnode->cons_buf.buf, nullptr);
  EXPECT_EQ(cnode->cons_buf.buf[0], '\0');
  EXPECT_EQ(cnode->cons_buf.head, 0);
  EXPECT_EQ(cnode->cons_buf.tail, 0);
}

TEST_F(ConsoleTest, NewConsoleIsAnnouncedAtLevelOneAndDescribedAtLevelThree) {
  ConsoleSettings settings = test::Settings("mycons");
  settings.cons_port = 2001;
  settings.mgmt_port = 23;
  settings.logging = 1;
  settings.events = 2;
  {
    const test::DebugCapture capture(kInfo);
    const test::ConsolePtr cnode(NewConsoleNode(settings));
    EXPECT_THAT(capture.Messages(), ElementsAre("Entering NewConsoleNode\n"));
  }
  const test::DebugCapture capture(kTrace);
  const test::ConsolePtr cnode(NewConsoleNode(settings));
  EXPECT_THAT(capture.Messages(),
              ElementsAre("Entering NewConsoleNode\n", "\tcons_name = \"mycons\".\n",
                          "\tplat_name = \"platform\".\n", "\tipaddr    = \"127.0.0.1\".\n",
                          "\tcons_port = \"2001\".\n", "\tmgmt_port = \"23\".\n",
                          "\tlogging   = \"1\".\n", "\tevents    = \"2\".\n"));
}

TEST_F(ConsoleTest, RunningOutOfMemoryGivesNoNode) {
  cons_buf_size = 16;
  for (const int failing : {1, 2, 3}) {
    const test::DebugCapture capture(kDetail);
    const test::FailAllocation failure(failing);
    EXPECT_EQ(NewConsoleNode(test::Settings("mycons")), nullptr);
    EXPECT_TRUE(failure.reached());
    EXPECT_THAT(test::Reports(capture.Messages()),
                ElementsAre("NewConsoleNode: malloc() failed : Cannot allocate memory\n"));
    EXPECT_TRUE(
        capture.Has("PostJixEvent: template=qor.zevd.daemon.error message=Out of memory -=- "
                    "priority=700\n"));
  }
}

TEST_F(ConsoleTest, FreeingFreesItsPartsAndLeavesItsUsers) {
  cons_buf_size = 16;
  ConsoleNode* cnode = test::MakeConsole("mycons").release();
  UserNode user{};
  ASSERT_EQ(AddUserToList(&user, cnode->user_list), 0);
  FreeConsoleNode(cnode);  // AddressSanitizer sees what is left or freed twice
  EXPECT_EQ(user.sock, 0);
}

// ---- The list -----------------------------------------------------------------------------------

class ConsoleListTest : public ConsoleTest {
 protected:
  ConsoleListTest() { InitConsoleList(&list_, "my list"); }
  ~ConsoleListTest() override {
    EmptyConsoleList(&list_);
    free(const_cast<char*>(list_.list_name));
  }

  ConsoleNode* Add(const char* name, int sock = -1, int status = kNotConnected) {
    return test::AddConsole(&list_, name, sock, status);
  }

  ConsoleList list_;
};

TEST_F(ConsoleListTest, LookUpByNameIsExact) {
  Add("console");
  ConsoleNode* first = Add("Console");
  Add("Console");
  EXPECT_EQ(LocateConsoleInList("Console", &list_), first);
  EXPECT_EQ(LocateConsoleInList("CONSOLE", &list_), nullptr);
  EXPECT_EQ(LocateConsoleInList("Consol", &list_), nullptr);
  EXPECT_EQ(LocateConsoleInList("", &list_), nullptr);
}

TEST_F(ConsoleListTest, LookUpInAnyCaseTakesTheFirstOfThatName) {
  Add("other");
  ConsoleNode* first = Add("Console");
  Add("CONSOLE");
  for (const char* name : {"console", "CONSOLE", "Console", "cOnSoLe"}) {
    EXPECT_EQ(FindByAnyCase(&list_, name), first) << name;
  }
  for (const char* name : {"", "Consol", "consoles", " console"}) {
    EXPECT_EQ(FindByAnyCase(&list_, name), nullptr) << name;
  }
}

TEST_F(ConsoleListTest, LookUpWithoutANameTakesTheFirstConsole) {
  EXPECT_EQ(FindByAnyCase(&list_, nullptr), nullptr);
  ConsoleNode* first = Add("first");
  Add("second");
  EXPECT_EQ(FindByAnyCase(&list_, nullptr), first);
}

TEST_F(ConsoleListTest, ConsoleIsCalledByItsNameInAnyCase) {
  const ConsoleNode& console = *Add("Console");
  EXPECT_TRUE(IsCalled(console, "Console"));
  EXPECT_TRUE(IsCalled(console, "cONSOLE"));
  EXPECT_FALSE(IsCalled(console, "Consol"));
  EXPECT_FALSE(IsCalled(console, "Console1"));
  EXPECT_FALSE(IsCalled(console, ""));
}

TEST_F(ConsoleListTest, EveryConsoleIsCalledByNoName) {
  EXPECT_TRUE(IsCalled(*Add("one"), nullptr));
  EXPECT_TRUE(IsCalled(*Add(""), nullptr));
}

// ---- Dumping ------------------------------------------------------------------------------------

TEST_F(ConsoleListTest, DumpIsAlwaysPrinted) {
  ConsoleNode* cnode = Add("mycons", 7, kRefused);
  cnode->cons_port = 2001;
  cnode->mgmt_port = 23;
  cnode->logging = 1;
  cnode->events = 2;
  cnode->enable = 3;
  cnode->deleted = 4;
  cnode->log_fd = 8;
  cnode->ref_count = 5;
  cnode->lfca_time = 1234567890123;
  cnode->lsca_time = 42;
  CopyText(cnode->telnet_cmd, "\xFF\xFB\x01");
  const test::DebugCapture capture(0);
  DumpConsoles(&list_);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("Dumping \"my list\"...\n", "name           = mycons\n",
                          "addr           = 127.0.0.1\n", "cons_port      = 2001\n",
                          "mgmt_port      = 23\n", "logging        = 1\n", "events         = 2\n",
                          "enable         = 3\n", "deleted        = 4\n", "sock           = 7\n",
                          "log_fd         = 8\n", "status         = 2\n", "ref_count      = 5\n",
                          "lfca_time      = 1234567890123\n", "lsca_time      = 42\n",
                          "telnet_cmd     = \xFF\xFB\x01\n",
                          "-----------------------------------------\n\n"));
  cnode->sock = -1;
  cnode->log_fd = -1;
}

TEST_F(ConsoleListTest, DumpOfAnEmptyListIsItsName) {
  const test::DebugCapture capture(0);
  DumpConsoles(&list_);
  EXPECT_THAT(capture.Messages(), ElementsAre("Dumping \"my list\"...\n"));
}

}  // namespace
