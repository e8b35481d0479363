// Who may log in, and who may read the daemon's cookie: groups, members, owners and modes.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "exit_status.h"

namespace zevctl {

/// One thing that was looked at.
struct Step {
  enum class Kind {
    kRight,    ///< it is as it should be
    kMended,   ///< it was changed
    kWanted,   ///< it would be changed, but was not
    kProblem,  ///< somebody has to look at it
  };
  Kind kind = Kind::kRight;
  std::string text;
};

/// Puts the station's rights in order; with `only_look`, tells what it would do. Owners are never
/// changed: the daemon may run as root or as a user of its own, and the installation knows which.
class Rights {
 public:
  explicit Rights(bool only_look) : only_look_(only_look) {}

  /// The groups of those who may log in and of those who may read the cookie.
  void Groups();

  /// Membership of a user, who must exist, in both.
  void Member(const std::string& user);

  /// The station's directories, the cookie, and the PAM service.
  void Files();

  const std::vector<Step>& steps() const { return steps_; }
  bool any_member_added() const { return any_member_added_; }
  bool Has(Step::Kind kind) const;

 private:
  void Group(const std::string& name);
  void Join(const std::string& user, const std::string& group);
  void Directory(const std::string& path, bool for_group_alone);
  void Cookie();
  void PamService();
  void Adjust(int fd, const std::string& path, bool for_group_alone);

  /// Notes what `mend` did, or that it was not called.
  void Mend(const std::string& what, const std::string& done,
            const std::function<std::string()>& mend);
  void Note(Step::Kind kind, const std::string& text) { steps_.push_back({kind, text}); }

  bool only_look_;
  bool any_member_added_ = false;
  std::vector<Step> steps_;
};

/// The groups that may log in, and that may read the cookie.
inline constexpr char kLoginGroup[] = "qoruser";
inline constexpr char kStationGroup[] = "zevd";

}  // namespace zevctl
