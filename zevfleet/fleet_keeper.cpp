// A renewal counts only when a write has gone through at the same server before it and after it, in
// one and the same term. Without that, a leader that has lost the others may still renew leases for
// a while which its successor does not know of.
#include "fleet_keeper.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "fleet_clock.h"

namespace zevfleet {

namespace {

constexpr int64_t kRetry = 100 * kMillisecond;

// Several tries fit into the time that is left.
int64_t Interval(int64_t lease_seconds) {
  return (lease_seconds * kSecond - LeaseMargin(lease_seconds)) / 4;
}

}  // namespace

int64_t LeaseMargin(int64_t lease_seconds) {
  return std::max(kSecond, lease_seconds * kSecond / 5);
}

LeaseKeeper::LeaseKeeper(const EtcdOptions& options, DeadlineFile& file, const EtcdLease& lease,
                         std::string key, FleetStation station)
    : options_(options),
      file_(file),
      lease_(lease),
      key_(std::move(key)),
      station_(std::move(station)),
      beat_(station_.beat),
      confirmed_(BootNow()),
      ready_(station_.ready),
      thread_([this] { Run(); }) {}

LeaseKeeper::~LeaseKeeper() {
  {
    const std::lock_guard lock(mutex_);
    stop_ = true;
    changed_.notify_all();
  }
  thread_.join();
}

void LeaseKeeper::SetReady(bool ready) {
  const std::lock_guard lock(mutex_);
  if (ready_ == ready) return;
  ready_ = ready;
  hurry_ = true;
  changed_.notify_all();
}

std::string LeaseKeeper::Loss() {
  const std::lock_guard lock(mutex_);
  return loss_;
}

std::string LeaseKeeper::Trouble() {
  const std::lock_guard lock(mutex_);
  return trouble_;
}

void LeaseKeeper::Lose(const std::string& why) {
  // From now on the guard acts, whatever becomes of this process.
  file_.SetDeadline(BootNow());
  const std::lock_guard lock(mutex_);
  loss_ = why;
}

// Until the moment, or until somebody is in a hurry.
void LeaseKeeper::Pause(int64_t until) {
  std::unique_lock lock(mutex_);
  const auto is_over = [this] { return stop_ || hurry_; };
  // The condition's own clock does not count while the machine sleeps; so it is asked in pieces.
  while (!is_over() && BootNow() < until) {
    const int64_t left = std::min(until - BootNow(), 100 * kMillisecond);
    changed_.wait_for(lock, std::chrono::nanoseconds(std::max<int64_t>(left, 0)), is_over);
  }
  hurry_ = false;
}

void LeaseKeeper::Run() {
  Etcd etcd(options_);
  for (;;) {
    const int64_t begin = BootNow();
    int64_t next = begin + Interval(lease_.seconds);
    try {
      if (!Renew(etcd)) next = begin;
      const std::lock_guard lock(mutex_);
      trouble_.clear();
    } catch (const EtcdError& error) {
      if (error.cause() == EtcdError::Cause::kNoLease) {
        return Lose("the lease has ended in etcd");
      }
      next = BootNow() + kRetry;
      const std::lock_guard lock(mutex_);
      trouble_ = error.what();
    }
    Pause(next);
    const std::lock_guard lock(mutex_);
    if (stop_ || !loss_.empty()) return;
  }
}

// False when it does not count and has to be done again.
bool LeaseKeeper::Renew(Etcd& etcd) {
  const int64_t begin = BootNow();
  const int64_t seconds = std::min(etcd.KeepAlive(lease_.id), lease_.seconds);
  {
    const std::lock_guard lock(mutex_);
    station_.ready = ready_;
  }
  ++station_.beat;
  EtcdTransaction beat;
  beat.IfOfLease(key_, lease_.id).Put(key_, Encode(station_), lease_.id);
  if (!etcd.Commit(beat)) {
    Lose("the key " + key_ + " of etcd belongs to somebody else");
    return true;
  }
  const EtcdTerm term = etcd.term();
  const bool counts = known_ == term;
  known_ = term;
  if (!counts) return false;
  file_.SetDeadline(begin + seconds * kSecond - LeaseMargin(lease_.seconds));
  confirmed_ = BootNow();
  beat_ = station_.beat;
  return true;
}

}  // namespace zevfleet
