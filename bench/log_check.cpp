#include "log_check.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <array>
#include <charconv>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <string_view>

#include "farm.h"
#include "process.h"
#include "station.h"

namespace bench {

namespace {

constexpr size_t kStampLength = 17;

size_t LineLength(LogForm form, std::string_view line) {
  const size_t name = form.consolidated ? Station::NameOf(0).size() + 1 : 0;
  return kStampLength + 1 + name + line.size() - (form.carriage_returns ? 0 : 1);
}

/// A whole file in memory.
class Mapped {
 public:
  explicit Mapped(const std::string& path) : size_(std::filesystem::file_size(path)) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() == -1) Fail(path);
    start_ = mmap(nullptr, size_, PROT_READ, MAP_SHARED | MAP_POPULATE, file.get(), 0);
    if (start_ == MAP_FAILED) Fail("mmap");
  }
  Mapped(const Mapped&) = delete;
  Mapped& operator=(const Mapped&) = delete;
  ~Mapped() { munmap(start_, size_); }
  std::string_view text() const { return {static_cast<const char*>(start_), size_}; }

 private:
  size_t size_;
  void* start_;
};

/// Takes the lines of a log, from the first to the last.
class Checker {
 public:
  Checker(LogForm form, size_t first, size_t consoles, const std::string& from,
          const std::string& to)
      : form_(form), first_(first), from_(from), to_(to), next_(consoles, kGreetingFirst) {}

  void Take(std::string_view line) {
    ++line_;
    CheckTime(line.substr(0, kStampLength));
    line.remove_prefix(kStampLength);
    Demand(Skip(line, " "), "no blank after the time");
    size_t& next = next_[form_.consolidated ? TakeConsole(line) : 0];
    Demand(line == Expected(next), "not the console's next line, but: " + std::string(line));
    next = next == kGreetingFirst ? 0 : (next + 1) % kFloodCycle;
  }

 private:
  static constexpr size_t kGreetingFirst = SIZE_MAX;

  void Demand(bool holds, const std::string& what) const {
    if (!holds) throw std::runtime_error("line " + std::to_string(line_) + " of a log: " + what);
  }

  static bool Skip(std::string_view& text, std::string_view prefix) {
    if (!text.starts_with(prefix)) return false;
    text.remove_prefix(prefix.size());
    return true;
  }

  // Times in this form sort like texts.
  void CheckTime(std::string_view time) const {
    constexpr std::string_view kShape = "00/00/00_00:00:00";
    bool shaped = time.size() == kShape.size();
    for (size_t i = 0; shaped && i < kShape.size(); ++i) {
      shaped = kShape[i] == '0' ? time[i] >= '0' && time[i] <= '9' : time[i] == kShape[i];
    }
    Demand(shaped && from_ <= time && time <= to_, "not its time: " + std::string(time));
  }

  // The place of the console among those of the log.
  size_t TakeConsole(std::string_view& line) const {
    const size_t length = Station::NameOf(0).size();
    const std::string_view name = line.substr(0, length);
    size_t console = SIZE_MAX;
    if (name.size() == length) {
      std::from_chars(name.data() + 1, name.data() + length, console);
      line.remove_prefix(length);
    }
    Demand(console - first_ < next_.size() && name == Station::NameOf(console), "no console");
    Demand(Skip(line, " "), "no blank after the name");
    return console - first_;
  }

  // Without the line end.
  std::string_view Expected(size_t number) const {
    const size_t length = kConsoleLine.size();
    std::string_view line = number == kGreetingFirst
                                ? kGreeting
                                : std::string_view(FloodLines()).substr(number * length, length);
    line.remove_suffix(form_.carriage_returns ? 1 : 2);
    return line;
  }

  LogForm form_;
  size_t first_;
  const std::string& from_;
  const std::string& to_;
  std::vector<size_t> next_;  // the number of each console's next line
  uint64_t line_ = 0;
};

}  // namespace

uintmax_t LogSize(LogForm form, size_t consoles, uint64_t lines_each) {
  return consoles * (LineLength(form, kGreeting) + lines_each * LineLength(form, kConsoleLine));
}

void WaitForLog(const std::string& path, uintmax_t size) {
  const auto now = [&] { return std::filesystem::file_size(path); };
  WaitUntil("all lines to be in " + path, [&] { return now() >= size; });
  if (now() != size) throw std::runtime_error(path + " is larger than what was printed");
}

std::string StampNow() {
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  std::array<char, kStampLength + 1> text{};
  strftime(text.data(), text.size(), "%y/%m/%d_%T", &local);
  return text.data();
}

void CheckLog(const std::string& path, LogForm form, size_t first, size_t consoles,
              const std::string& from, const std::string& to) {
  const Mapped log(path);
  std::string_view rest = log.text();
  Checker checker(form, first, consoles, from, to);
  while (!rest.empty()) {
    const size_t end = rest.find('\n');
    if (end == std::string_view::npos) throw std::runtime_error(path + " ends within a line");
    checker.Take(rest.substr(0, end));
    rest.remove_prefix(end + 1);
  }
}

}  // namespace bench
