// The ends of the chain of seals, as the file "chain" and the seals themselves tell them.
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <system_error>

#include "placing.h"
#include "sealing.h"
#include "work.h"

namespace zevkeep {

namespace {

using journal::Chain;
using journal::Link;
using journal::SealedIndex;
using journal::StoredSegment;

using Map = std::map<uint64_t, StoredSegment>;

// Whether what the seals say agrees with the chain. A seal that cannot be read does not disagree.
bool Agrees(const Work& work, const Map& segments, const Chain& chain) {
  if (chain.removed.segment > chain.sealed.segment) return false;
  if (chain.removed.segment == 0 && chain.removed.hash != journal::Hash{}) return false;
  for (const auto& [number, files] : segments) {
    if (!files.has_index) continue;
    const SealedIndex sealed = work.store.ReadIndex(work.station, number);
    if (!sealed.fault.empty()) continue;
    const bool is_first = number == chain.removed.segment + 1;
    const bool is_head = number == chain.sealed.segment;
    if (is_first != (sealed.seal.previous == chain.removed.hash)) return false;
    if (is_head != (sealed.seal.hash == chain.sealed.hash)) return false;
  }
  return true;
}

// What the file says; nothing if it is missing or wrong. The first pass of all may have been ended
// between its first seal and the file.
std::optional<Chain> ChainOf(const Work& work, const Map& segments) {
  const auto text = work.store.Read(journal::kChainName);
  if (!text && errno != ENOENT) throw std::system_error(errno, std::generic_category());
  std::optional<Chain> chain = Chain();
  if (text) chain = journal::ParseChain(*text);
  if (!chain || !Agrees(work, segments, *chain)) return {};
  for (const auto& [number, files] : segments) {
    if (!text && files.has_index && number > 1) return {};
  }
  return chain;
}

// As the seals that are there tell it. What was in its place stays for whoever looks into it.
Chain MakeAnew(Work& work, const Map& segments) {
  Chain chain;
  for (const auto& [number, files] : segments) {
    if (!files.has_index) continue;
    const SealedIndex sealed = work.store.ReadIndex(work.station, number);
    if (!sealed.fault.empty()) continue;
    if (chain.sealed.segment == 0) chain.removed = {number - 1, sealed.seal.previous};
    chain.sealed = {number, sealed.seal.hash};
  }
  work.tell.Problem(work.store.path() + "/" + journal::kChainName +
                    " is damaged or missing and is made anew; run \"zevctl journal verify\"");
  if (work.dry_run) return chain;
  work.tell.Record(LOG_WARNING, "chain made anew " + SealText(work.station, chain.sealed));
  const int fd = work.store.fd();
  if (renameat(fd, journal::kChainName, fd, journal::kBadChainName) != 0) {
    PlaceBytes(work.store, journal::kBadChainName, "");
  }
  PlaceChain(work.store, chain);
  return chain;
}

// An earlier pass was ended before it had told of its last seal.
void CatchUp(Work& work, const Map& segments) {
  const Chain before = work.chain;
  for (const auto& [number, files] : segments) {
    if (!files.has_index || number <= work.chain.sealed.segment) continue;
    const SealedIndex sealed = work.store.ReadIndex(work.station, number);
    if (!sealed.fault.empty()) continue;
    work.chain.sealed = {number, sealed.seal.hash};
    if (!work.dry_run) TellSeal(work);
  }
  if (work.chain != before && !work.dry_run) PlaceChain(work.store, work.chain);
}

// An earlier pass was ended while it removed this segment. Only what has the seal that the chain
// tells is removed, and the index goes last: a wrong number must not cost a journal.
void FinishRemoval(Work& work, const Map& segments) {
  const Link& removed = work.chain.removed;
  const auto found = segments.find(removed.segment);
  if (found == segments.end()) return;
  if (!found->second.has_index) {
    work.tell.Problem("segment " + std::to_string(removed.segment) +
                      " has been removed, but its records are there without their index; run "
                      "\"zevctl journal verify\"");
    return;
  }
  const SealedIndex sealed = work.store.ReadIndex(work.station, removed.segment);
  if (!sealed.is_missing && (!sealed.fault.empty() || sealed.seal.hash != removed.hash)) {
    work.tell.Problem("segment " + std::to_string(removed.segment) +
                      " has been removed, but another one is in its place; run \"zevctl journal "
                      "verify\"");
    return;
  }
  if (work.dry_run) return;
  RemoveFiles(work.store, removed.segment);
}

}  // namespace

bool LoadChain(Work& work) try {
  const Map segments = work.store.List();
  const auto chain = ChainOf(work, segments);
  work.chain = chain ? *chain : MakeAnew(work, segments);
  // It must be there before the disk is full: what is there can be written over.
  if (!work.dry_run && !work.store.Has(journal::kChainName)) PlaceChain(work.store, work.chain);
  CatchUp(work, segments);
  FinishRemoval(work, segments);
  return true;
} catch (const std::system_error& error) {
  TellFailure(work, "the file \"chain\" cannot be brought up to date", error.code().value());
  return work.disk_was_full;
}

}  // namespace zevkeep
