// Which consoles of the journal a typed name means, by every name that they had.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "journal/journal.h"

namespace zevctl {

struct ChosenConsoles {
  std::vector<size_t> ids;  ///< as in Journal::consoles(), each once, in that order
  /// What was meant, and every name of these consoles, but none that is another's now.
  std::vector<std::string> names;
  std::vector<std::string> remarks;  ///< for people: who is called otherwise now
  bool by_name = true;               ///< everything that was typed was a name in full
};

/// The consoles that are meant by names, unique starts of names and shell patterns; earlier names
/// count as well, but not of a console whose earlier name is another's now. `consoles`: those of
/// the journal; `other_names`: names that are known from elsewhere. Throws Failure(kNoSuchConsole)
/// with the nearest names when one means nothing.
ChosenConsoles ChooseConsoles(const std::vector<journal::Console>& consoles,
                              const std::vector<std::string>& typed,
                              const std::vector<std::string>& other_names = {});

/// For a command that shows one console. Throws Failure(kNoSuchConsole) when the name means none
/// or several. Of two with one name it is the one that is still there.
size_t ChooseOneConsole(const std::vector<journal::Console>& consoles, const std::string& typed,
                        std::vector<std::string>* remarks);

}  // namespace zevctl
