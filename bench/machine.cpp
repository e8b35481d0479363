#include "machine.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <iomanip>
#include <sstream>

namespace bench {

namespace {

double MemoryGib() {
  constexpr double kGib = 1024.0 * 1024.0 * 1024.0;
  return static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGESIZE)) /
         kGib;
}

}  // namespace

std::string DescribeMachine() {
  utsname system{};
  uname(&system);
  double load = 0;
  getloadavg(&load, 1);
  std::ostringstream text;
  text << sysconf(_SC_NPROCESSORS_ONLN) << " cores, " << std::lround(MemoryGib())
       << " GiB of memory, Linux " << system.release << ", g++ " << __VERSION__ << std::fixed
       << std::setprecision(2) << "; load average at the start " << load;
  return text.str();
}

}  // namespace bench
