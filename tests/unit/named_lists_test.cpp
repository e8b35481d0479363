// The lists of consoles, users, command connections, listening ports, event sets and patterns. They
// share the bodies of their functions; each has its own names, messages and rules.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "debug_support.h"
#include "event_set.h"
#include "failure_support.h"
#include "list_support.h"
#include "mapped_port.h"
#include "relay_support.h"

using namespace zevd;

namespace {

using test::DebugCapture;
using test::DebugTextsAre;
using test::FailAllocation;
using test::IsExitTrace;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::ExitedWithCode;

using Messages = std::vector<std::string>;

constexpr char kOutOfMemoryEvent[] =
    "PostJixEvent: template=qor.zevd.daemon.error message=Out of memory -=- priority=700\n";
constexpr char kTerminationEvent[] =
    "PostJixEvent: template=qor.zevd.daemon.error message=Terminated: Internal error -=- "
    "priority=700\n";

// ---- What each list has of its own --------------------------------------------------------------

// Every list is called "list" here. `kName` is the part of its functions' names in which they
// differ. Adding and removing write kAdded and kRemoved at level 3 for a node without a socket.

struct Consoles {
  using List = ConsoleList;
  static constexpr char kName[] = "Console";
  static constexpr char kFile[] = "console.cpp";
  static constexpr bool kSetsError = false;
  static constexpr auto New = NewConsoleList;
  static constexpr auto Init = InitConsoleList;
  static constexpr auto NewElem = NewConsoleListElem;
  static constexpr auto Add = AddConsoleToList;
  static constexpr auto Remove = RemoveConsoleFromList;
  static constexpr auto Empty = EmptyConsoleList;
  static constexpr auto Free = FreeConsoleList;
  static inline const Messages kAdded = {"AddConsoleToList: Added console sys1 to list.\n"};
  static inline const Messages kRemoved = {
      "RemoveConsoleFromList: Removed console sys1 from list.\n",
      "RemoveConsoleFromList: Doing FD_CLR( -1, ...) for console sys1 on list\n"};
  static inline const Messages kNotAdded = {"AddConsoleToList: NewConsoleListElem() failed.\n"};
  static constexpr char kStranger[] = "RemoveConsoleFromList: cnode not found in cons_list\n";
  static constexpr char kNegativeCount[] = "RemoveConsoleFromList: cons_list->count = -1\n";

  static ConsoleNode* Make() { return test::MakeConsole("sys1").release(); }
  static std::string TextOf(const ConsoleNode* cnode) { return cnode->cname; }
  static constexpr auto FreeNode = FreeConsoleNode;
  static constexpr char kFreeNode[] = "FreeConsoleNode";
};

struct Users {
  using List = UserList;
  static constexpr char kName[] = "User";
  static constexpr char kFile[] = "user.cpp";
  static constexpr bool kSetsError = true;
  static constexpr auto New = NewUserList;
  static constexpr auto Init = InitUserList;
  static constexpr auto NewElem = NewUserListElem;
  static constexpr auto Add = AddUserToList;
  static constexpr auto Remove = RemoveUserFromList;
  static constexpr auto Free = FreeUserList;
  static inline const Messages kAdded = {
      "AddUserToList: Added user to list for console sys1.\n",
      "AddUserToList: Doing FD_SET( -1, ...) for user on list.\n"};
  static inline const Messages kRemoved = {
      "RemoveUserFromList: Removed user from list for console sys1.\n"};
  static inline const Messages kNotAdded = {"AddUserToList: NewUserListElem() returned NULL\n"};
  static constexpr char kStranger[] = "RemoveUserFromList: unode not found in user_list\n";
  static constexpr char kNegativeCount[] = "RemoveUserFromList: user_list->count = -1\n";

  UserNode* Make() const { return NewUserNode(-1, console.get(), "anna", "192.0.2.1", kShared); }
  static std::string TextOf(const UserNode* unode) { return unode->user_name; }
  static void FreeNode(UserNode* unode) { DiscardUserNode(unode); }

  test::ConsolePtr console = test::MakeConsole("sys1");
};

struct Commands {
  using List = CommandList;
  static constexpr char kName[] = "Command";
  static constexpr char kFile[] = "command.cpp";
  static constexpr bool kSetsError = true;
  static constexpr auto New = NewCommandList;
  static constexpr auto Init = InitCommandList;
  static constexpr auto NewElem = NewCommandListElem;
  static constexpr auto Add = AddCommandToList;
  static constexpr auto Remove = RemoveCommandFromList;
  static constexpr auto Free = FreeCommandList;
  static inline const Messages kAdded = {"AddCommandToList: Added command to list.\n"};
  static inline const Messages kRemoved = {};
  static inline const Messages kNotAdded = {"AddCommandToList: NewCommandListElem() failed\n"};
  static constexpr char kStranger[] = "RemoveCommandFromList: cnode not found in cmd_list\n";
  static constexpr char kNegativeCount[] = "RemoveCommandFromList: cmd_list->count = -1\n";

  static CommandNode* Make() { return NewCommandNode("anna", "192.0.2.1"); }
  static std::string TextOf(const CommandNode* tool) { return tool->user_name; }
  static constexpr auto FreeNode = FreeCommandNode;
};

struct MappedPorts {
  using List = MappedPortList;
  static constexpr char kName[] = "MappedPort";
  static constexpr char kFile[] = "mapped_port.cpp";
  static constexpr bool kSetsError = true;
  static constexpr auto New = NewMappedPortList;
  static constexpr auto Init = InitMappedPortList;
  static constexpr auto NewElem = NewMappedPortListElem;
  static constexpr auto Add = AddMappedPortToList;
  static constexpr auto Remove = RemoveMappedPortFromList;
  static constexpr auto Empty = EmptyMappedPortList;
  static constexpr auto Free = FreeMappedPortList;
  static inline const Messages kAdded = {
      "AddMappedPortToList: Doing FD_SET( -1, ...) for mapped port on list.\n"};
  static inline const Messages kRemoved = {};
  static inline const Messages kNotAdded = {
      "AddMappedPortToList: NewMappedPortListElem() returned NULL\n"};
  static constexpr char kStranger[] = "RemoveMappedPortFromList: mpnode not found in list\n";
  static constexpr char kNegativeCount[] = "RemoveMappedPortFromList: mplist->count = -1\n";

  static MappedPortNode* Make() { return NewMappedPortNode(-1, 6501); }
  static std::string TextOf(const MappedPortNode* mpnode) { return std::to_string(mpnode->port); }
  static constexpr auto FreeNode = FreeMappedPortNode;
  static constexpr char kFreeNode[] = "FreeMappedPortNode";
};

struct EventSets {
  using List = EventSetList;
  static constexpr char kName[] = "EventSet";
  static constexpr char kFile[] = "event_set.cpp";
  static constexpr bool kSetsError = false;
  static constexpr auto New = NewEventSetList;
  static constexpr auto Init = InitEventSetList;
  static constexpr auto Add = AddEventSetToList;
  static constexpr auto Remove = RemoveEventSetFromList;
  static constexpr auto Empty = EmptyEventSetList;
  static constexpr auto Free = FreeEventSetList;
  static inline const Messages kAdded = {};
  static inline const Messages kRemoved = {};
  static inline const Messages kNotAdded = {};
  static constexpr char kStranger[] = "RemoveEventSetFromList: enode not found in list\n";

  static EventSetNode* Make() { return NewEventSetNode("disk", NewRegExList("re_list")); }
  static std::string TextOf(const EventSetNode* enode) { return enode->name; }
  static constexpr auto FreeNode = FreeEventSetNode;
  static constexpr char kFreeNode[] = "FreeEventSetNode";
};

struct Patterns {
  using List = RegExList;
  static constexpr char kName[] = "RegEx";
  static constexpr char kFile[] = "reg_expr.cpp";
  static constexpr bool kSetsError = false;
  static constexpr auto New = NewRegExList;
  static constexpr auto Init = InitRegExList;
  static constexpr auto Add = AddRegExToList;
  static constexpr auto Remove = RemoveRegExFromList;
  static constexpr auto Empty = EmptyRegExList;
  static constexpr auto Free = FreeRegExList;
  static inline const Messages kAdded = {"AddRegExToList: Added command to list.\n"};
  static inline const Messages kRemoved = {};
  static inline const Messages kNotAdded = {};
  static constexpr char kStranger[] = "RemoveRegExFromList: node not found in list\n";

  static RegExNode* Make() { return NewRegExNode("disk", 1, 0, "error", nullptr); }
  static std::string TextOf(const RegExNode* node) { return node->pattern; }
  static constexpr auto FreeNode = FreeRegExNode;
  static constexpr char kFreeNode[] = "FreeRegExNode";
};

// ---- What all lists have in common --------------------------------------------------------------

template <typename Kind>
class NamedListTest : public test::RelayTest {
 protected:
  using List = typename Kind::List;
  using Node = typename List::Node;

  ~NamedListTest() override {
    DropElements(*list_);
    FreeListRecord(list_);
    for (Node* node : nodes_) Kind::FreeNode(node);
  }

  /// A node that is freed at the end.
  Node* Make() { return nodes_.emplace_back(kind_.Make()); }

  Node* Append() {
    Node* node = Make();
    EXPECT_EQ(Kind::Add(node, list_), 0);
    return node;
  }

  std::vector<Node*> Members() const {
    std::vector<Node*> members;
    for (Node* node : Nodes(*list_)) members.push_back(node);
    return members;
  }

  /// The members are linked in that order, both ways, and counted.
  void ExpectMembers(const std::vector<Node*>& expected) const {
    EXPECT_EQ(Members(), expected);
    std::vector<Node*> backwards;
    for (auto* elem = list_->tail; elem != nullptr; elem = elem->prev) {
      backwards.insert(backwards.begin(), NodeOf(*list_, elem));
    }
    EXPECT_EQ(backwards, expected);
    EXPECT_EQ(list_->count, static_cast<int>(expected.size()));
  }

  /// The name of the list's function, as in Function("New", "List").
  static std::string Function(const char* before, const char* after) {
    return std::string(before) + Kind::kName + after;
  }

  /// What is written at level 2 when `function` runs out of memory.
  static Messages NoMemoryIn(const std::string& function) {
    return {function + ": malloc() failed : Cannot allocate memory\n", kOutOfMemoryEvent};
  }

  /// What a user would be told after an allocation has failed.
  static void ExpectError() {
    EXPECT_STREQ(u_err_msg, Kind::kSetsError ? "013 - Out of memory.\r\n" : nullptr);
  }

  /// Making a list fails at that allocation, which `function` makes.
  static void ExpectNoMemory(int allocation, const std::string& function) {
    const DebugCapture debug(kDetail);
    const FailAllocation failure(allocation);
    EXPECT_EQ(Kind::New("list"), nullptr);
    EXPECT_TRUE(failure.reached());
    EXPECT_THAT(debug.Messages(), ElementsAreArray(NoMemoryIn(function)));
    ExpectError();
  }

  Kind kind_;
  std::vector<Node*> nodes_;
  List* list_ = Kind::New("list");
};

using AllLists = ::testing::Types<Consoles, Users, Commands, MappedPorts, EventSets, Patterns>;
TYPED_TEST_SUITE(NamedListTest, AllLists);

TYPED_TEST(NamedListTest, NewListIsEmptyAndHasACopyOfItsName) {
  std::string name = "tools";
  typename TypeParam::List* list = TypeParam::New(name.c_str());
  name[0] = 'f';
  EXPECT_STREQ(list->list_name, "tools");
  EXPECT_EQ(list->head, nullptr);
  EXPECT_EQ(list->tail, nullptr);
  EXPECT_EQ(list->count, 0);
  TypeParam::Free(list);
}

TYPED_TEST(NamedListTest, InitialisedListIsEmptyAndHasACopyOfItsName) {
  std::string name = "tools";
  typename TypeParam::List list;
  list.count = 7;
  TypeParam::Init(&list, name.c_str());
  name[0] = 'f';
  EXPECT_STREQ(list.list_name, "tools");
  EXPECT_EQ(list.head, nullptr);
  EXPECT_EQ(list.tail, nullptr);
  EXPECT_EQ(list.count, 0);
  free(const_cast<char*>(list.list_name));
}

TYPED_TEST(NamedListTest, NoMemoryForTheList) {
  this->ExpectNoMemory(1, this->Function("New", "List"));
}

TYPED_TEST(NamedListTest, NoMemoryForTheName) {
  this->ExpectNoMemory(2, this->Function("Init", "List"));
}

TYPED_TEST(NamedListTest, NodesAreAppended) {
  auto* first = this->Append();
  auto* second = this->Make();
  const DebugCapture debug(kTrace);
  EXPECT_EQ(TypeParam::Add(second, this->list_), 0);
  EXPECT_THAT(test::WithoutEntries(debug.Messages()), ElementsAreArray(TypeParam::kAdded));
  this->ExpectMembers({first, second});
  EXPECT_EQ(NodeOf(*this->list_, this->list_->head), first);
  EXPECT_EQ(NodeOf(*this->list_, this->list_->tail), second);
}

TYPED_TEST(NamedListTest, NoMemoryForTheElement) {
  auto* first = this->Append();
  auto* second = this->Make();
  // The lists without sockets have no function for the element alone.
  constexpr bool kMakesElements = HasSockets<typename TypeParam::List>;
  Messages expected = this->NoMemoryIn(kMakesElements ? this->Function("New", "ListElem")
                                                      : this->Function("Add", "ToList"));
  expected.insert(expected.end(), TypeParam::kNotAdded.begin(), TypeParam::kNotAdded.end());
  {
    const DebugCapture debug(kDetail);
    const FailAllocation failure(1);
    EXPECT_EQ(TypeParam::Add(second, this->list_), -1);
    EXPECT_TRUE(failure.reached());
    EXPECT_THAT(debug.Messages(), ElementsAreArray(expected));
    this->ExpectError();
  }
  this->ExpectMembers({first});
  EXPECT_EQ(TypeParam::Add(second, this->list_), 0);
  this->ExpectMembers({first, second});
}

TYPED_TEST(NamedListTest, HeadIsRemoved) {
  auto* head = this->Append();
  auto* second = this->Append();
  auto* third = this->Append();
  EXPECT_EQ(TypeParam::Remove(head, this->list_), 0);
  this->ExpectMembers({second, third});
}

TYPED_TEST(NamedListTest, TailIsRemoved) {
  auto* first = this->Append();
  auto* second = this->Append();
  auto* tail = this->Append();
  EXPECT_EQ(TypeParam::Remove(tail, this->list_), 0);
  this->ExpectMembers({first, second});
}

TYPED_TEST(NamedListTest, RemovedNodeSurvives) {
  auto* first = this->Append();
  auto* middle = this->Append();
  auto* last = this->Append();
  const std::string text = TypeParam::TextOf(middle);
  const DebugCapture debug(kTrace);
  EXPECT_EQ(TypeParam::Remove(middle, this->list_), 0);
  EXPECT_THAT(test::WithoutEntries(debug.Messages()), ElementsAreArray(TypeParam::kRemoved));
  this->ExpectMembers({first, last});
  EXPECT_EQ(TypeParam::TextOf(middle), text);
}

TYPED_TEST(NamedListTest, RemovingEveryNodeLeavesAnEmptyList) {
  this->Append();
  this->Append();
  for (auto* node : this->nodes_) EXPECT_EQ(TypeParam::Remove(node, this->list_), 0);
  EXPECT_EQ(this->list_->head, nullptr);
  EXPECT_EQ(this->list_->tail, nullptr);
  EXPECT_EQ(this->list_->count, 0);
}

TYPED_TEST(NamedListTest, NodesAreRemovedByIdentity) {
  auto* first = this->Append();
  auto* twin = this->Append();
  TypeParam::Remove(twin, this->list_);
  this->ExpectMembers({first});
}

TYPED_TEST(NamedListTest, RemovingAStrangerEndsTheProcess) {
  this->Append();
  auto* stranger = this->Make();
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        TypeParam::Remove(stranger, this->list_);
      },
      ExitedWithCode(1),
      DebugTextsAre(
          ElementsAre(TypeParam::kStranger, kTerminationEvent, IsExitTrace(1, TypeParam::kFile))));
}

TYPED_TEST(NamedListTest, FunctionsWriteTheirEntryLines) {
  auto* node = this->Make();
  const DebugCapture debug(kTrace);
  auto* list = TypeParam::New("list");
  TypeParam::Add(node, list);
  TypeParam::Remove(node, list);
  TypeParam::Free(list);
  for (const std::string& function :
       {this->Function("New", "List"), this->Function("Init", "List"),
        this->Function("Add", "ToList"), this->Function("Remove", "FromList"),
        this->Function("Free", "List")}) {
    EXPECT_EQ(debug.Count("Entering " + function + "\n"), 1) << function;
  }
}

// ---- Lists with sockets -------------------------------------------------------------------------

template <typename Kind>
class SocketListTest : public NamedListTest<Kind> {
 protected:
  using Node = typename Kind::List::Node;

  Node* MakeWith(int sock) {
    Node* node = this->Make();
    node->sock = sock;
    return node;
  }

  Node* AppendWith(int sock) {
    Node* node = MakeWith(sock);
    EXPECT_EQ(Kind::Add(node, this->list_), 0);
    return node;
  }

  /// The set holds exactly these sockets, the last of which is the highest.
  void ExpectSockets(const std::vector<int>& sockets) const {
    std::vector<int> found;
    for (int sock = 0; sock < kBeyondAnySocket; ++sock) {
      if (this->list_->fdset.Contains(sock)) found.push_back(sock);
    }
    EXPECT_EQ(found, sockets);
    EXPECT_EQ(this->list_->high_sock, sockets.empty() ? -1 : sockets.back());
  }

  static constexpr int kBeyondAnySocket = 6000;
};

using SocketLists = ::testing::Types<Consoles, Users, Commands, MappedPorts>;
TYPED_TEST_SUITE(SocketListTest, SocketLists);

TYPED_TEST(SocketListTest, NewElementHasItsNodeAndNoLinks) {
  auto* node = this->Make();
  const std::unique_ptr<typename TypeParam::List::Element> elem(TypeParam::NewElem(node));
  EXPECT_EQ(NodeOf(*this->list_, elem.get()), node);
  EXPECT_EQ(elem->prev, nullptr);
  EXPECT_EQ(elem->next, nullptr);
}

TYPED_TEST(SocketListTest, NoMemoryForANewElement) {
  const DebugCapture debug(kDetail);
  const FailAllocation failure(1);
  EXPECT_EQ(TypeParam::NewElem(nullptr), nullptr);
  EXPECT_THAT(debug.Messages(),
              ElementsAreArray(this->NoMemoryIn(this->Function("New", "ListElem"))));
  this->ExpectError();
}

TYPED_TEST(SocketListTest, NewListHasNoSockets) {
  this->ExpectSockets({});
}

TYPED_TEST(SocketListTest, SetAndHighestSocketFollowEveryChange) {
  auto* low = this->AppendWith(10);
  this->ExpectSockets({10});
  auto* high = this->AppendWith(2000);
  this->ExpectSockets({10, 2000});
  auto* none = this->AppendWith(-1);
  this->ExpectSockets({10, 2000});
  auto* middle = this->AppendWith(30);
  this->ExpectSockets({10, 30, 2000});
  TypeParam::Remove(high, this->list_);
  this->ExpectSockets({10, 30});
  TypeParam::Remove(low, this->list_);
  this->ExpectSockets({30});
  TypeParam::Remove(middle, this->list_);
  this->ExpectSockets({});
  this->ExpectMembers({none});
}

TYPED_TEST(SocketListTest, SetIsRebuiltFromScratch) {
  this->AppendWith(40)->sock = 20;
  this->AppendWith(10);
  this->ExpectSockets({10, 20});
}

TYPED_TEST(SocketListTest, NoMemoryForTheSet) {
  auto* node = this->MakeWith(5000);
  Messages expected = this->NoMemoryIn(this->Function("Add", "ToList"));
  expected.insert(expected.end(), TypeParam::kNotAdded.begin(), TypeParam::kNotAdded.end());
  {
    const DebugCapture debug(kDetail);
    const FailAllocation failure(1);
    EXPECT_EQ(TypeParam::Add(node, this->list_), -1);
    EXPECT_TRUE(failure.reached());
    EXPECT_THAT(debug.Messages(), ElementsAreArray(expected));
    this->ExpectError();
  }
  this->ExpectMembers({});
  this->ExpectSockets({});
  EXPECT_EQ(TypeParam::Add(node, this->list_), 0);
  this->ExpectSockets({5000});
}

TYPED_TEST(SocketListTest, TraceNamesTheSocket) {
  const auto with_socket = [](Messages messages) {
    for (std::string& message : messages) {
      const size_t at = message.find("( -1,");
      if (at != std::string::npos) message.replace(at, 5, "( 30,");
    }
    return messages;
  };
  auto* node = this->MakeWith(30);
  DebugCapture debug(kTrace);
  EXPECT_EQ(TypeParam::Add(node, this->list_), 0);
  EXPECT_THAT(test::WithoutEntries(debug.NewMessages()),
              ElementsAreArray(with_socket(TypeParam::kAdded)));
  EXPECT_EQ(TypeParam::Remove(node, this->list_), 0);
  EXPECT_THAT(test::WithoutEntries(debug.NewMessages()),
              ElementsAreArray(with_socket(TypeParam::kRemoved)));
}

TYPED_TEST(SocketListTest, ElementsAndSetsWriteTheirEntryLines) {
  auto* node = this->Make();
  const DebugCapture debug(kTrace);
  EXPECT_EQ(TypeParam::Add(node, this->list_), 0);
  for (const std::string& function : {this->Function("New", "ListElem"), std::string("SetFdSet"),
                                      std::string("GetHighestSocketNumber")}) {
    EXPECT_EQ(debug.Count("Entering " + function + "\n"), 1) << function;
  }
}

TYPED_TEST(SocketListTest, NegativeCountEndsTheProcess) {
  auto* node = this->Append();
  EXPECT_EXIT(
      {
        this->list_->count = 0;
        test::SendDebugToStderr(kDetail);
        TypeParam::Remove(node, this->list_);
      },
      ExitedWithCode(1),
      DebugTextsAre(ElementsAre(TypeParam::kNegativeCount, kTerminationEvent,
                                IsExitTrace(1, TypeParam::kFile))));
}

// ---- Lists that own their nodes, and lists that do not ------------------------------------------

template <typename Kind>
class OwningListTest : public test::RelayTest {
 protected:
  static typename Kind::List* MakeListOfTwo() {
    auto* list = Kind::New("list");
    for (int i = 0; i < 2; ++i) EXPECT_EQ(Kind::Add(Kind::Make(), list), 0);
    return list;
  }

  /// Both nodes have been removed and freed.
  static void ExpectFreed(const DebugCapture& debug) {
    const std::string remove = std::string("Entering Remove") + Kind::kName + "FromList\n";
    EXPECT_EQ(debug.Count(remove), 2);
    for (const std::string& message : Kind::kRemoved) EXPECT_EQ(debug.Count(message), 2);
    EXPECT_EQ(debug.Count(std::string("Entering ") + Kind::kFreeNode + "\n"), 2);
  }
};

using OwningLists = ::testing::Types<Consoles, MappedPorts, EventSets, Patterns>;
TYPED_TEST_SUITE(OwningListTest, OwningLists);

TYPED_TEST(OwningListTest, EmptyingFreesEveryNode) {
  typename TypeParam::List* list = this->MakeListOfTwo();
  {
    const DebugCapture debug(kTrace);
    TypeParam::Empty(list);
    this->ExpectFreed(debug);
    EXPECT_EQ(debug.Count(std::string("Entering Empty") + TypeParam::kName + "List\n"), 1);
  }
  EXPECT_EQ(list->head, nullptr);
  EXPECT_EQ(list->tail, nullptr);
  EXPECT_EQ(list->count, 0);
  EXPECT_STREQ(list->list_name, "list");
  TypeParam::Free(list);
}

TYPED_TEST(OwningListTest, FreeingFreesEveryNode) {
  typename TypeParam::List* list = this->MakeListOfTwo();
  const DebugCapture debug(kTrace);
  TypeParam::Free(list);
  this->ExpectFreed(debug);
}

template <typename Kind>
class BorrowingListTest : public ::testing::Test {};

using BorrowingLists = ::testing::Types<Users, Commands>;
TYPED_TEST_SUITE(BorrowingListTest, BorrowingLists);

TYPED_TEST(BorrowingListTest, FreeingLeavesElementsAndNodes) {
  const TypeParam kind;
  auto* node = kind.Make();
  typename TypeParam::List* list = TypeParam::New("list");
  ASSERT_EQ(TypeParam::Add(node, list), 0);
  const std::unique_ptr<typename TypeParam::List::Element> elem(list->head);
  TypeParam::Free(list);
  EXPECT_EQ(elem.get()->*TypeParam::List::kNodeMember, node);
  EXPECT_EQ(TypeParam::TextOf(node), "anna");
  TypeParam::FreeNode(node);
}

}  // namespace
