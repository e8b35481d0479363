// Whether the table of packaging/nftables/zevd-lines.nft is there.
#include <string>

#include "lines.h"
#include "program_run.h"

namespace zevctl {

FilterState LinesFilter() {
  const ProgramResult answer = RunProgram({"/usr/sbin/nft", "list", "table", "inet", "zevd_lines"});
  if (answer.status != 0) {
    // To those who may not ask, nft says nothing of tables.
    return answer.output.find("No such file or directory") != std::string::npos
               ? FilterState::kMissing
               : FilterState::kUnknown;
  }
  // A table without its rules keeps nobody away.
  for (const char* part : {"hook output", kLinesAddress, "skuid", "reject"}) {
    if (answer.output.find(part) == std::string::npos) return FilterState::kMissing;
  }
  return FilterState::kThere;
}

}  // namespace zevctl
