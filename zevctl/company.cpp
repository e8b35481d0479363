#include "company.h"

#include <utility>

namespace zevctl {

namespace {

constexpr Milliseconds kPace{3000};

}  // namespace

Company::Company(const Settings& settings, Credentials& credentials, std::string console,
                 std::string mode)
    : settings_(settings),
      credentials_(credentials),
      console_(std::move(console)),
      mode_(std::move(mode)) {
  LookNow();
}

std::optional<Clock::time_point> Company::Due() const {
  if (port_->closed() || port_->busy()) return {};
  return next_;
}

void Company::Look() {
  port_->Ask("status " + console_);
}

void Company::LookNow() {
  if (!port_ || port_->closed()) port_.emplace(settings_, credentials_);
  if (!port_->busy()) Look();
}

bool Company::Read() {
  port_->Read();
  const auto answer = port_->Take();
  if (!answer) return false;
  next_ = Clock::now() + kPace;
  auto status = ParseStatus(*answer, console_);
  if (!status) {
    console_ = NameAfterEvent(console_);
    return false;
  }
  Take(std::move(*status));
  return true;
}

std::vector<Attendee> Company::Others() const {
  if (!status_) return {};
  return self_ ? Without(status_->users, {*self_}) : status_->users;
}

void Company::Take(ConsoleStatus status) {
  if (status_) {
    joined_ = Without(status.users, status_->users);
    left_ = Without(status_->users, status.users);
  } else {
    self_ = FindSelf(status);
  }
  status_ = std::move(status);
}

// Whoever came last in this mode, of this user's name if there is one.
std::optional<Attendee> Company::FindSelf(const ConsoleStatus& status) const {
  std::optional<Attendee> last;
  for (const Attendee& user : status.users) {
    if (user.mode != mode_) continue;
    if (!last || IsMyName(user.name) || !IsMyName(last->name)) last = user;
  }
  return last;
}

bool Company::IsMyName(const std::string& name) const {
  return name == UserName(settings_) || (credentials_.Known() && name == credentials_.Name());
}

}  // namespace zevctl
