#include "verify.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <map>
#include <optional>
#include <string>

namespace journal {

namespace {

constexpr int kMostTries = 5;

std::string Missing(uint64_t first, uint64_t last) {
  if (first == last) return "segment " + std::to_string(first) + " is missing";
  return "segments " + std::to_string(first) + " to " + std::to_string(last) + " are missing";
}

class Verifier {
 public:
  explicit Verifier(const SegmentStore& store) : store_(store) {
    result_.station = store.Station();
  }

  Verification Run() {
    TakeStock();
    CheckBegin();
    for (const auto& [number, files] : segments_) Check(number, files);
    CheckEnd();
    return std::move(result_);
  }

 private:
  using Map = std::map<uint64_t, StoredSegment>;

  // Files, and the chain that belongs to them: zevkeep may be at work.
  void TakeStock() {
    for (int i = 0; i < kMostTries; ++i) {
      const auto before = store_.Read(kChainName);
      chain_error_ = before ? 0 : errno;
      segments_ = store_.List();
      if (before) chain_ = ParseChain(*before);
      if (before == store_.Read(kChainName)) break;
    }
    for (const auto& [number, files] : segments_) {
      if (files.has_index) last_index_ = number;
    }
  }

  void Add(const std::string& file, const std::string& problem, const std::string& advice,
           uint64_t segment = 0) {
    result_.findings.push_back({segment, file, {}, problem, advice});
  }

  void CheckBegin() {
    if (store_.Has(kBadChainName)) {
      Add(kBadChainName, "the file \"chain\" was damaged or missing, and zevkeep has made it anew",
          "compare the hashes in the system's log (zevkeep) with \"zevctl journal list\", then "
          "remove this file");
    }
    if (!chain_ && chain_error_ == 0) Add(kChainName, "is damaged", kCompare);
    // It may be the first seal of all, made a moment ago.
    if (chain_error_ != 0 && (chain_error_ != ENOENT || last_index_ > 1)) {
      Add(kChainName, std::string("cannot be read: ") + strerror(chain_error_), kCompare);
    }
    if (chain_) {
      previous_ = chain_->removed.hash;
      expected_ = chain_->removed.segment + 1;
    } else if (last_index_ <= 1) {
      previous_ = Hash{};
      expected_ = 1;
    }
  }

  // What has been removed, or is being removed now.
  bool IsLeftOver(uint64_t number, const StoredSegment& files) {
    if (!chain_ || number > chain_->removed.segment) return false;
    // The index goes last when a segment is removed.
    bool is_remainder = number == chain_->removed.segment && files.has_index;
    if (is_remainder) {
      const SealedIndex sealed = store_.ReadIndex(result_.station, number);
      is_remainder =
          sealed.is_missing || (sealed.fault.empty() && sealed.seal.hash == chain_->removed.hash);
    }
    if (!is_remainder) {
      Add(kChainName, "says that this segment has been removed, but it is there", kCompare, number);
    }
    return true;
  }

  bool WasRemoved(uint64_t number) const {
    const auto text = store_.Read(kChainName);
    const auto chain = text ? ParseChain(*text) : std::nullopt;
    return chain && number <= chain->removed.segment;
  }

  void Check(uint64_t number, StoredSegment files) {
    if (IsLeftOver(number, files)) return;
    const bool is_last = number == segments_.rbegin()->first;
    SegmentCheck check(store_, result_.station, number, is_last);
    check.Run(files);
    // What was found counts only if nobody has sealed, compressed or removed the segment meanwhile.
    for (int i = 0; i < kMostTries && !check.findings().empty(); ++i) {
      const Map now = store_.List();
      const auto found = now.find(number);
      if (found != now.end() && found->second == files) break;
      if (WasRemoved(number)) return Forget(number);
      if (found == now.end()) break;
      files = found->second;
      check = SegmentCheck(store_, result_.station, number, is_last);
      check.Run(files);
    }
    CheckPlace(number, files, check);
    Count(check);
  }

  // The segment behind it cannot be compared with it.
  void Forget(uint64_t number) {
    expected_ = number + 1;
    previous_.reset();
    next_record_.reset();
  }

  void CheckPlace(uint64_t number, const StoredSegment& files, SegmentCheck& check) {
    if (expected_ && number > *expected_) {
      Add("", Missing(*expected_, number - 1), kBringBack, *expected_);
      Forget(number - 1);
    }
    expected_ = number + 1;
    CheckSeal(number, files, check);
    CheckFirstNumber(number, check);
  }

  void CheckSeal(uint64_t number, const StoredSegment& files, SegmentCheck& check) {
    const std::string name = NameOf(number, Form::kIndex);
    const Link head = chain_.value_or(Chain()).sealed;
    if (!check.is_sealed()) {
      const bool was_sealed = number < last_index_ || number <= head.segment;
      if (!files.has_index && (was_sealed || files.has_compressed)) {
        check.Add(name, "is missing, though the segment has been sealed", kBringBack);
      }
      previous_.reset();
      return;
    }
    const Seal& seal = check.sealed().seal;
    if (previous_ && seal.previous != *previous_) {
      check.Add(name, "does not continue the chain: it or the one before was exchanged", kCompare);
    } else if (number == head.segment && seal.hash != head.hash) {
      check.Add(name, "has another seal than the file \"chain\" tells", kCompare);
    } else {
      result_.last_seal = {number, seal.hash};
    }
    previous_ = seal.hash;
  }

  void CheckFirstNumber(uint64_t number, SegmentCheck& check) {
    const SegmentIndex* records = check.records();
    if (records == nullptr || !records->header_is_sound) {
      next_record_.reset();
      return;
    }
    const uint64_t first = records->header.first_record;
    if (next_record_ && first != *next_record_) {
      check.Add(NameOf(number, Form::kRaw),
                "begins with the running number " + std::to_string(first) + ", where " +
                    std::to_string(*next_record_) + " was to follow",
                kLost);
    }
    next_record_.reset();
    if (records->damages.empty()) next_record_ = records->next_record;
  }

  void Count(const SegmentCheck& check) {
    ++result_.segments;
    if (check.is_sealed()) ++result_.sealed;
    if (const SegmentIndex* records = check.records(); records != nullptr) {
      result_.records += records->records;
      result_.bytes += records->size;
    }
    const auto& found = check.findings();
    result_.findings.insert(result_.findings.end(), found.begin(), found.end());
  }

  void CheckEnd() {
    if (!chain_) return;
    const uint64_t head = chain_->sealed.segment;
    const uint64_t removed = chain_->removed.segment;
    const uint64_t last = segments_.empty() ? 0 : segments_.rbegin()->first;
    if (head > std::max(last, removed)) {
      Add("", Missing(std::max(last, removed) + 1, head), kBringBack, head);
    } else if (removed > 0 && last <= removed) {
      Add("", "no segment behind " + std::to_string(removed) + " is there", kBringBack);
    }
    if (last_index_ > head + 1 || removed > head) {
      Add(kChainName, "is older than the seals, or was changed", kCompare);
    }
  }

  const SegmentStore& store_;
  Verification result_;
  Map segments_;
  uint64_t last_index_ = 0;  // the last segment that has an index
  std::optional<Chain> chain_;
  int chain_error_ = 0;

  // What the next segment should have, as far as that is known.
  std::optional<uint64_t> expected_;
  std::optional<Hash> previous_;
  std::optional<uint64_t> next_record_;
};

}  // namespace

Verification Verify(const SegmentStore& store) {
  return Verifier(store).Run();
}

}  // namespace journal
