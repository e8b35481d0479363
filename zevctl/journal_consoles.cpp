#include "journal_consoles.h"

#include <algorithm>
#include <set>

#include "exit_status.h"
#include "name_match.h"
#include "output.h"

namespace zevctl {

namespace {

using Consoles = std::vector<journal::Console>;
using Names = std::vector<std::string>;

bool HadName(const journal::Console& console, const std::string& name) {
  return std::any_of(console.names.begin(), console.names.end(),
                     [&](const journal::ConsoleName& known) { return known.name == name; });
}

Names AllNames(const Consoles& consoles, const Names& other_names) {
  std::set<std::string> names(other_names.begin(), other_names.end());
  for (const journal::Console& console : consoles) {
    for (const journal::ConsoleName& known : console.names) names.insert(known.name);
  }
  return {names.begin(), names.end()};
}

// A name, a pattern, or the start of one name.
FoundNames Meant(const Names& names, const std::string& typed) {
  FoundNames found = FindNames(names, typed);
  if (found.names.empty()) found = {{FindOneName(names, typed)}, false};
  return found;
}

/// Collects consoles and what is to be said about them.
class Choice {
 public:
  explicit Choice(const Consoles& consoles) : consoles_(consoles) {}

  /// What one word means. Who is meant by the present name need not be told of an earlier one.
  void Add(const Names& names) {
    meant_ = {names.begin(), names.end()};
    for (const std::string& name : names) Add(name);
  }

  ChosenConsoles Result(bool by_name) {
    return {{ids_.begin(), ids_.end()}, {names_.begin(), names_.end()}, remarks_, by_name};
  }

 private:
  void Add(const std::string& name) {
    names_.insert(name);
    const bool is_taken = std::any_of(consoles_.begin(), consoles_.end(),
                                      [&](const auto& console) { return console.name() == name; });
    for (const journal::Console& console : consoles_) {
      if (!HadName(console, name)) continue;
      if (is_taken && console.name() != name) {
        Remark(console, name, ", too, before another console got that name");
      } else {
        Take(console, name);
      }
    }
  }

  void Take(const journal::Console& console, const std::string& name) {
    ids_.insert(console.id);
    for (const journal::ConsoleName& known : console.names) {
      if (!IsOthersNow(console, known.name)) names_.insert(known.name);
    }
    if (console.name() != name) Remark(console, name, " before");
  }

  // What stands under that name, such as a log, is the other console's.
  bool IsOthersNow(const journal::Console& console, const std::string& name) const {
    return name != console.name() &&
           std::any_of(consoles_.begin(), consoles_.end(),
                       [&](const auto& other) { return other.name() == name; });
  }

  void Remark(const journal::Console& console, const std::string& name, const std::string& when) {
    if (meant_.contains(console.name())) return;
    const std::string remark = Printable(console.name()) + " was called " + Printable(name) + when;
    if (std::find(remarks_.begin(), remarks_.end(), remark) == remarks_.end()) {
      remarks_.push_back(remark);
    }
  }

  const Consoles& consoles_;
  std::set<std::string> meant_;
  std::set<size_t> ids_;
  std::set<std::string> names_;
  Names remarks_;
};

}  // namespace

ChosenConsoles ChooseConsoles(const Consoles& consoles, const Names& typed,
                              const Names& other_names) {
  const Names names = AllNames(consoles, other_names);
  Choice choice(consoles);
  bool by_name = true;
  for (const std::string& word : typed) {
    const FoundNames found = Meant(names, word);
    by_name = by_name && found.by_name;
    choice.Add(found.names);
  }
  return choice.Result(by_name);
}

size_t ChooseOneConsole(const Consoles& consoles, const std::string& typed, Names* remarks) {
  const std::string name = FindOneName(AllNames(consoles, {}), typed);
  ChosenConsoles chosen = ChooseConsoles(consoles, {name});
  *remarks = chosen.remarks;
  Names present;
  for (const size_t id : chosen.ids) present.push_back(consoles[id].name());
  if (std::adjacent_find(present.begin(), present.end(), std::not_equal_to<>()) != present.end()) {
    throw Failure(ExitStatus::kNoSuchConsole,
                  "\"" + Printable(name) +
                      "\" was the name of several consoles; ask for one by "
                      "its last name: " +
                      Alternatives(present));
  }
  const auto is_there = [&](size_t id) { return !consoles[id].is_gone; };
  const auto found = std::find_if(chosen.ids.begin(), chosen.ids.end(), is_there);
  return found == chosen.ids.end() ? chosen.ids.back() : *found;
}

}  // namespace zevctl
