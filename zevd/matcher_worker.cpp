#include "matcher_worker.h"

#include <regex.h>
#include <unistd.h>

#include <cstddef>
#include <string_view>

#include "matcher_wire.h"

namespace zevd {

namespace {

constexpr size_t kReasonSize = 256;

class Worker {
 public:
  Worker(int sock, const MatcherPatterns& patterns, MatcherBoard* board)
      : sock_(sock),
        patterns_(patterns),
        board_(board),
        compiled_(patterns.size()),
        good_(patterns.size()) {}

  void Serve() {
    while (ReceiveFromMatcher(sock_, &request_, 0) == Received::kMessage) {
      const bool sent = request_.header.kind == MatcherKind::kLine ? Match() : Compile();
      if (!sent) return;
    }
  }

 private:
  bool Answer(MatcherKind kind, uint32_t place, std::string_view text = {}) {
    return SendToMatcher(sock_, {.kind = kind, .number = place}, text, 0);
  }

  bool Compile() {
    const uint32_t place = request_.header.number;
    const MatcherPattern& pattern = patterns_.at(place);
    regex_t& expression = compiled_.at(place);
    const int error = regcomp(&expression, pattern.text.c_str(),
                              REG_EXTENDED | (pattern.any_case ? REG_ICASE : 0));
    good_.at(place) = error == 0;
    if (error == 0) return Answer(MatcherKind::kTaken, place);
    char reason[kReasonSize];
    regerror(error, &expression, reason, sizeof reason);
    return Answer(MatcherKind::kBadPattern, place, reason);
  }

  bool Match() {
    const std::string line(request_.Text());
    for (uint32_t place = request_.header.number; IsOfSet(place); ++place) {
      if (!good_[place]) continue;
      board_->trying = place;
      const int error = regexec(&compiled_[place], line.c_str(), 0, nullptr, 0);
      board_->trying = MatcherBoard::kNone;
      if (error == 0) return Answer(MatcherKind::kMatch, place);
      if (error != REG_NOMATCH) return Answer(MatcherKind::kMatchOutOfMemory, place);
    }
    return Answer(MatcherKind::kNoMatch, MatcherBoard::kNone);
  }

  bool IsOfSet(uint32_t place) const {
    return place < patterns_.size() && patterns_[place].set == request_.header.set;
  }

  int sock_;
  const MatcherPatterns& patterns_;
  MatcherBoard* board_;
  std::vector<regex_t> compiled_;  ///< by place
  std::vector<bool> good_;         ///< whether it has compiled
  MatcherMessage request_;
};

}  // namespace

void RunMatcherWorker(int sock, const MatcherPatterns& patterns, MatcherBoard* board) {
  Worker(sock, patterns, board).Serve();
  _exit(0);
}

}  // namespace zevd
