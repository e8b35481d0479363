#include "fleet_watch.h"

#include <chrono>
#include <nlohmann/json.hpp>
#include <utility>

namespace zevfleet {

namespace {

constexpr std::chrono::milliseconds kPause{300};  // before another try

}  // namespace

FleetWatch::FleetWatch(const EtcdOptions& options, std::string prefix)
    : options_(options), prefix_(std::move(prefix)), thread_([this] { Run(); }) {}

FleetWatch::~FleetWatch() {
  stop_ = true;
  restart_ = true;
  changed_.notify_all();
  thread_.join();
}

std::vector<FleetNews> FleetWatch::Wait(int milliseconds) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                    [this] { return !news_.empty(); });
  return std::exchange(news_, {});
}

std::string FleetWatch::Trouble() {
  const std::lock_guard lock(mutex_);
  return trouble_;
}

void FleetWatch::SetTrouble(const std::string& trouble) {
  const std::lock_guard lock(mutex_);
  trouble_ = trouble;
}

void FleetWatch::Hand(FleetNews news) {
  const std::lock_guard lock(mutex_);
  news_.push_back(std::move(news));
  changed_.notify_all();
}

void FleetWatch::Run() {
  Etcd etcd(options_);
  while (!stop_) {
    try {
      Follow(etcd);
    } catch (const EtcdError& error) {
      if (error.cause() == EtcdError::Cause::kCompacted) seen_ = 0;
      SetTrouble(error.what());
      std::unique_lock lock(mutex_);
      changed_.wait_for(lock, kPause, [this] { return stop_.load(); });
    }
    if (restart_.exchange(false)) etcd.Leave();
  }
}

void FleetWatch::Follow(Etcd& etcd) {
  if (seen_ == 0) {
    EtcdListing listing = etcd.List(prefix_);
    seen_ = listing.revision;
    Hand({.is_whole = true, .present = std::move(listing.keys), .gone = {}});
  }
  etcd.Watch(
      prefix_, seen_ + 1, [this](const Json& result) { return TakeEvents(result); }, restart_);
}

bool FleetWatch::TakeEvents(const Json& result) {
  SetTrouble("");
  FleetNews news;
  if (const auto events = result.find("events"); events != result.end() && events->is_array()) {
    for (const Json& event : *events) {
      if (!event.is_object() || !event.contains("kv")) continue;
      EtcdKey key = DecodeKey(event["kv"]);
      seen_ = std::max(seen_, key.mod_revision);
      if (event.value("type", std::string()) == "DELETE") {
        news.gone.push_back(key.key);
        std::erase_if(news.present, [&](const EtcdKey& one) { return one.key == key.key; });
      } else {
        std::erase(news.gone, key.key);
        news.present.push_back(std::move(key));
      }
    }
  }
  if (!news.present.empty() || !news.gone.empty()) Hand(std::move(news));
  return !restart_;
}

}  // namespace zevfleet
