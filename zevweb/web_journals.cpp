#include "web_journals.h"

#include <utility>

#include "exchange.h"

namespace zevweb {

namespace {

using Cause = journal::JournalError::Cause;

}  // namespace

WebJournals::Lease::~Lease() {
  if (owner_) owner_->GiveBack(std::move(journal_));
}

// One of those that are open, or none when a new one may be opened.
std::unique_ptr<journal::Journal> WebJournals::TakeOpen() {
  std::unique_lock lock(mutex_);
  if (!condition_.wait_for(lock, patience_, [&] { return taken_ < most_; })) {
    throw Problem(503, "too many others look into the past just now; try again in a few seconds");
  }
  ++taken_;
  if (open_.empty()) return nullptr;
  auto journal = std::move(open_.back());
  open_.pop_back();
  return journal;
}

void WebJournals::GiveBack(std::unique_ptr<journal::Journal> journal) {
  const std::lock_guard lock(mutex_);
  --taken_;
  if (journal) open_.push_back(std::move(journal));
  condition_.notify_one();
}

// A journal that has been taken away, or replaced by another one, is opened anew.
WebJournals::Lease WebJournals::Take() {
  std::unique_ptr<journal::Journal> journal = TakeOpen();
  try {
    if (journal) {
      journal->Refresh();
      return {this, std::move(journal)};
    }
  } catch (const journal::JournalError&) {
    journal.reset();
  }
  try {
    return {this, std::make_unique<journal::Journal>(directory_)};
  } catch (const journal::JournalError& error) {
    if (error.cause() == Cause::kMissing) return {this, nullptr};
    GiveBack(nullptr);
    throw;
  } catch (...) {
    GiveBack(nullptr);
    throw;
  }
}

}  // namespace zevweb
