#include "event_set_support.h"

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "lists.h"

using namespace zevd;

namespace test {

EventSetTest::EventSetTest() {
  std::filesystem::create_directory(kEventDirectory);
}

void EventSetTest::WriteEvents(const std::string& name, std::string_view content) {
  WriteFile(std::filesystem::path(kEventDirectory) / name, content);
}

void EventSetTest::MakeUnreadable(const std::string& name) {
  std::filesystem::create_symlink("nowhere", std::filesystem::path(kEventDirectory) / name);
}

void EventSetTest::RemoveEvents() {
  std::filesystem::remove_all(kEventDirectory);
  std::filesystem::create_directory(kEventDirectory);
}

std::vector<std::string> EventSetTest::SetNames() {
  std::vector<std::string> names;
  for (const EventSetNode* enode : Nodes(*ev_list)) names.emplace_back(enode->name);
  return names;
}

int EventSetTest::Patterns(const char* set) {
  return FindEventNode(set, ev_list)->re_list->count;
}

}  // namespace test
