#include "rehearsal.h"

#include <regex.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <utility>

#include "literal_filter.h"
#include "pattern_process.h"

namespace zevctl {

namespace {

constexpr int kCalibrations = 50;

double Microseconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

/// What a piece of work takes, without what measuring takes.
class Meter {
 public:
  /// `idle`: work that is nothing but what surrounds the work to be measured.
  template <typename Idle>
  Meter(clockid_t clock, const Idle& idle) : clock_(clock) {
    double least = Measure(idle);
    for (int i = 1; i < kCalibrations; ++i) least = std::min(least, Measure(idle));
    overhead_ = least;
  }

  template <typename Work>
  double Measure(const Work& work) const {
    const double begin = Microseconds(clock_);
    work();
    return std::max(0.0, Microseconds(clock_) - begin - overhead_);
  }

 private:
  clockid_t clock_;
  double overhead_ = 0;
};

void AddCost(double cost, PatternFigures* figures) {
  ++figures->tried;
  figures->total_cost += cost;
  figures->worst_cost = std::max(figures->worst_cost, cost);
}

/// A compiled expression.
class Expression {
 public:
  explicit Expression(const EventPattern& pattern) {
    const int flags = REG_EXTENDED | (pattern.any_case ? REG_ICASE : 0);
    error_ = regcomp(&compiled_, pattern.expression.c_str(), flags);
  }
  ~Expression() {
    if (error_ == 0) regfree(&compiled_);
  }
  Expression(const Expression&) = delete;
  Expression& operator=(const Expression&) = delete;

  /// Empty for one that has compiled.
  std::string WhyBad() const {
    if (error_ == 0) return {};
    std::array<char, 256> reason{};
    regerror(error_, &compiled_, reason.data(), reason.size());
    return std::string("does not compile: ") + reason.data();
  }

  bool Matches(const std::string& line) const {
    return regexec(&compiled_, line.c_str(), 0, nullptr, 0) == 0;
  }

 private:
  regex_t compiled_{};
  int error_ = 0;
};

}  // namespace

// ---- Patterns that the system's matcher bears ---------------------------------------------------

/// They are tried in this process, and only on lines that hold one of their literals.
class Rehearsal::EasyPatterns {
 public:
  EasyPatterns(const EventFile& file, std::vector<PatternFigures>* figures)
      : figures_(*figures), meter_(CLOCK_THREAD_CPUTIME_ID, [] {}) {
    std::vector<const char*> texts;
    for (size_t place = 0; place < file.patterns.size(); ++place) {
      const EventPattern& pattern = file.patterns[place];
      if (pattern.is_hard) continue;
      auto expression = std::make_unique<Expression>(pattern);
      figures_[place].left_out = expression->WhyBad();
      if (!figures_[place].left_out.empty()) continue;
      expressions_.push_back({place, std::move(expression)});
      texts.push_back(pattern.expression.c_str());
    }
    has_filter_ = !texts.empty() && filter_.Build(texts.data(), texts.size());
  }

  void Judge(const std::string& line, std::vector<size_t>* matches) {
    if (!has_filter_) {
      for (const Compiled& compiled : expressions_) Try(compiled, line, matches);
      return;
    }
    const zevd::NumberSet candidates = filter_.Candidates(line);
    for (size_t i = candidates.Next(0); i < expressions_.size(); i = candidates.Next(i + 1)) {
      Try(expressions_[i], line, matches);
    }
  }

 private:
  struct Compiled {
    size_t place;
    std::unique_ptr<Expression> expression;
  };

  void Try(const Compiled& compiled, const std::string& line, std::vector<size_t>* matches) {
    bool matched = false;
    const double cost = meter_.Measure([&] { matched = compiled.expression->Matches(line); });
    AddCost(cost, &figures_[compiled.place]);
    if (matched) matches->push_back(compiled.place);
  }

  std::vector<PatternFigures>& figures_;
  Meter meter_;
  std::vector<Compiled> expressions_;
  zevd::LiteralFilter filter_;
  bool has_filter_ = false;
};

// ---- Patterns that it does not bear -------------------------------------------------------------

/// One process has the whole file and decides who wins, as the daemon's does; what a line leaves
/// behind in it is what it leaves behind in the daemon's. Another tells what each hard pattern says
/// of the line, and how long it takes.
class Rehearsal::HardPatterns {
 public:
  HardPatterns(const EventFile& file, std::vector<PatternFigures>* figures)
      : figures_(*figures),
        places_(PlacesOfHard(file)),
        whole_({SetOf(file)}),
        single_(SingleSets(file)),
        meter_(CLOCK_MONOTONIC, [this] { single_.FirstMatch(places_.size(), "x"); }) {}

  void Judge(const std::string& line, std::vector<size_t>* matches) {
    for (size_t i = 0; i < places_.size(); ++i) {
      if (!single_.WhyLeftOut(i, 0).empty()) continue;
      bool matched = false;
      AddCost(meter_.Measure([&] { matched = single_.FirstMatch(i, line).has_value(); }),
              &figures_[places_[i]]);
      if (matched) matches->push_back(places_[i]);
    }
    std::sort(matches->begin(), matches->end());
  }

  std::optional<size_t> Winner(const std::string& line) { return whole_.FirstMatch(0, line); }

  void NoteLeftOut() {
    for (size_t place = 0; place < figures_.size(); ++place) {
      const std::string& reason = whole_.WhyLeftOut(0, place);
      if (!reason.empty()) figures_[place].left_out = reason;
    }
  }

 private:
  using Set = std::vector<ProcessPattern>;

  static std::vector<size_t> PlacesOfHard(const EventFile& file) {
    std::vector<size_t> places;
    for (size_t place = 0; place < file.patterns.size(); ++place) {
      if (file.patterns[place].is_hard) places.push_back(place);
    }
    return places;
  }

  static Set SetOf(const EventFile& file) {
    Set set;
    for (const EventPattern& pattern : file.patterns) {
      set.push_back({pattern.expression, pattern.any_case});
    }
    return set;
  }

  // The last set is empty: what asking takes.
  static std::vector<Set> SingleSets(const EventFile& file) {
    std::vector<Set> sets;
    for (const size_t place : PlacesOfHard(file)) {
      const EventPattern& pattern = file.patterns[place];
      sets.push_back({{pattern.expression, pattern.any_case}});
    }
    sets.emplace_back();
    return sets;
  }

  std::vector<PatternFigures>& figures_;
  std::vector<size_t> places_;
  PatternProcess whole_;
  PatternProcess single_;
  Meter meter_;
};

namespace {

// A pattern that has been given up when it was tried alone may still win.
void AddWinner(Verdict* verdict) {
  if (!verdict->winner) return;
  std::vector<size_t>& matches = verdict->matches;
  const auto place = std::lower_bound(matches.begin(), matches.end(), *verdict->winner);
  if (place == matches.end() || *place != *verdict->winner) matches.insert(place, *verdict->winner);
}

}  // namespace

// ---- Both ---------------------------------------------------------------------------------------

Rehearsal::Rehearsal(EventFile file)
    : file_(std::move(file)),
      figures_(file_.patterns.size()),
      easy_(std::make_unique<EasyPatterns>(file_, &figures_)) {
  if (file_.IsHard()) hard_ = std::make_unique<HardPatterns>(file_, &figures_);
}

Rehearsal::~Rehearsal() = default;

Verdict Rehearsal::Judge(const std::string& line, bool is_attended) {
  Verdict verdict;
  easy_->Judge(line, &verdict.matches);
  if (hard_ != nullptr) {
    hard_->Judge(line, &verdict.matches);
    verdict.winner = hard_->Winner(line);
    AddWinner(&verdict);
  } else if (!verdict.matches.empty()) {
    verdict.winner = verdict.matches.front();
  }
  for (const size_t place : verdict.matches) ++figures_[place].matched;
  if (verdict.winner) {
    PatternFigures& winner = figures_[*verdict.winner];
    ++winner.wins;
    if (!is_attended) ++winner.events;
  }
  return verdict;
}

const std::vector<PatternFigures>& Rehearsal::figures() {
  if (hard_ != nullptr) hard_->NoteLeftOut();
  return figures_;
}

}  // namespace zevctl
