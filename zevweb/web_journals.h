// Journals that are open already, for requests that look into the past.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "journal/journal.h"

namespace zevweb {

/// A Journal belongs to one thread at a time, and opening one may read a lot. Any thread may use
/// this.
class WebJournals {
 public:
  /// `most`: how many may be in use at once. Whoever comes then waits for up to `patience`.
  explicit WebJournals(std::string directory, size_t most = 3,
                       std::chrono::milliseconds patience = std::chrono::seconds(5))
      : directory_(std::move(directory)), most_(most), patience_(patience) {}

  /// A journal that knows what has been written so far, for as long as the lease lives.
  class Lease {
   public:
    Lease(WebJournals* owner, std::unique_ptr<journal::Journal> journal)
        : owner_(owner), journal_(std::move(journal)) {}
    Lease(Lease&& other) noexcept = default;
    Lease& operator=(Lease&&) = delete;
    ~Lease();

    /// Null when the station has no journal.
    const journal::Journal* get() const { return journal_.get(); }

    /// To be called when the journal has thrown: another one is opened for the next request.
    void Spoil() { journal_.reset(); }

   private:
    struct Nothing {
      void operator()(WebJournals*) const {}
    };
    std::unique_ptr<WebJournals, Nothing> owner_;  // none once it has been moved from
    std::unique_ptr<journal::Journal> journal_;
  };

  /// Throws journal::JournalError when there is a journal that cannot be read, and Problem(503)
  /// when too many requests look into the past.
  Lease Take();

 private:
  std::unique_ptr<journal::Journal> TakeOpen();
  void GiveBack(std::unique_ptr<journal::Journal> journal);

  const std::string directory_;
  const size_t most_;
  const std::chrono::milliseconds patience_;
  std::mutex mutex_;
  std::condition_variable condition_;
  std::vector<std::unique_ptr<journal::Journal>> open_;
  size_t taken_ = 0;
};

}  // namespace zevweb
