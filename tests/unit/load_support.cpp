#include "load_support.h"

#include <cstdint>
#include <cstdlib>
#include <new>
#include <string>
#include <string_view>

#include "lists.h"
#include "load.h"
#include "options.h"
#include "relay_support.h"

using namespace zevd;

namespace test {

std::string ConfigLine(const std::string& name, int port, const std::string& flags) {
  return name + " 127.0.0.1 " + std::to_string(port) + " 0 0 A200 system \"OS\" " + flags +
         " \"\" \n";
}

EventSetNode* AddEventSet(const char* name) {
  EventSetNode* enode = NewEventSetNode(name, NewRegExList("re_list"));
  if (enode == nullptr || AddEventSetToList(enode, ev_list) != 0) throw std::bad_alloc();
  return enode;
}

ConsoleNode* AddConsoleAt(ConsoleList* list, const char* name, uint16_t port) {
  ConsoleNode* cnode = AddConsole(list, name);
  cnode->cons_port = port;
  return cnode;
}

LoadTest::LoadTest() {
  InitConsoleList(&list_, "list");
  config_file = kConfig;
}

LoadTest::~LoadTest() {
  EmptyConsoleList(&list_);
  free(const_cast<char*>(list_.list_name));
}

int LoadTest::Load(std::string_view content) {
  WriteFile(kConfig, content);
  return LoadConfigFile(&list_);
}

}  // namespace test
