#include "work.h"

#include <cerrno>
#include <cstring>
#include <iostream>

namespace zevkeep {

void Teller::Detail(const std::string& text) const {
  if (verbose_) std::cout << text << std::endl;
}

void Teller::Problem(const std::string& text) {
  ++problems_;
  std::cerr << "zevkeep: " + text + "\n";
}

void TellFailure(Work& work, const std::string& what, int error) {
  const bool is_full = error == ENOSPC || error == EDQUOT;
  work.disk_was_full = work.disk_was_full || is_full;
  work.tell.Problem(what + ": " + strerror(error) +
                    (is_full ? "; make room on the disk, or lower ZEVD_JOURNAL= in qor.conf"
                             : "; look at the directory " + work.store.path()));
}

}  // namespace zevkeep
