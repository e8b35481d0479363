// How many more strangers the daemon can take without running out of descriptors.
#pragma once

/// One look at the descriptors of this process.
struct DescriptorUse {
  int open;    ///< -1 when the system does not tell
  int wanted;  ///< what its consoles may still open
};

/// Sees the limit coming, so that strangers who connect cannot keep a console from being connected,
/// a log from being opened, or accept() itself from working. The thread user_conn only.
class DescriptorBudget {
 public:
  /// True when one more connection leaves what the daemon needs for itself; the connection must
  /// have been accepted already. `look()` gives a DescriptorUse; it is asked only now and then.
  template <typename Look>
  bool Admits(Look look) {
    if (admitted_unseen_ > 0) {
      --admitted_unseen_;
      return true;
    }
    const int room = Room(look());
    // Others open descriptors too: half of the room is given away before the next look.
    admitted_unseen_ = room / 2;
    return room > 0;
  }

  /// What was known of the room does not hold any more.
  void Forget() { admitted_unseen_ = 0; }

 private:
  static int Room(const DescriptorUse& use);

  int admitted_unseen_ = 0;
};

/// Open descriptors of this process; -1 when the system does not tell.
int CountDescriptors();
