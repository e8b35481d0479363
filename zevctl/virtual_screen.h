// A terminal's screen in memory: what a console's bytes have drawn, and the sequences that draw the
// same on another terminal.
#pragma once

#include <memory>
#include <string>
#include <string_view>

struct VTerm;
struct VTermScreen;

namespace zevctl {

struct ScreenSize {
  int rows = 24;
  int columns = 80;
};

/// The size as the terminal emulation can hold it: at least one row and two columns.
ScreenSize Bounded(ScreenSize size);

class VirtualScreen {
 public:
  explicit VirtualScreen(ScreenSize size);
  ~VirtualScreen();
  VirtualScreen(const VirtualScreen&) = delete;
  VirtualScreen& operator=(const VirtualScreen&) = delete;

  /// Takes what a DrawingFilter gives.
  void Put(std::string_view text);

  /// Empty, as a terminal when it is switched on.
  void Reset();

  ScreenSize size() const { return size_; }

  /// One row: its text with the sequences for its colours, to be written from the first column on.
  /// They are set back at its end. The blanks at the end are left out where they have no colour.
  std::string Row(int row) const;

  int cursor_row() const;
  int cursor_column() const;
  bool cursor_is_visible() const { return cursor_is_visible_; }

  /// What draws the whole screen on a terminal of this size, and makes the terminal go on as this
  /// one would: with its cursor, its colours, its margins, and on the alternate screen.
  std::string Picture() const;

 private:
  struct Callbacks;

  std::string PenLooks() const;
  std::string Margins() const;

  ScreenSize size_;
  std::unique_ptr<VTerm, void (*)(VTerm*)> terminal_;
  VTermScreen* screen_;  // belongs to the terminal
  bool cursor_is_visible_ = true;
  bool is_alternate_ = false;
};

}  // namespace zevctl
