// Playing a tape: the screen as it was at a place, and what comes next.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "drawing_filter.h"
#include "journal/journal.h"
#include "plain_lines.h"
#include "replay_pace.h"
#include "replay_tape.h"
#include "telnet_strip.h"
#include "virtual_screen.h"

namespace zevctl {

/// What a console's bytes become on their way to a screen. A copy goes on from the same place.
struct Decoder {
  TelnetStrip telnet;
  DrawingFilter filter;
  PlainLines lines;

  /// `drawn` gets each piece; `ended` each line that is complete.
  void Take(std::string_view bytes, const DrawingFilter::Sink& drawn,
            const PlainLines::Sink& ended);

  /// At the end: the line that is not complete.
  std::string Finish();
};

/// What a person is told of bytes that are no record.
std::string DamageText(const journal::Damage& damage);

class Player {
 public:
  /// At the start of the tape.
  Player(const Tape& tape, ScreenSize size);

  /// Goes to a place. The screen there is drawn anew, from the last 256 KiB before it.
  void Go(const Landing& landing);
  void Resize(ScreenSize size);
  void GoToStart();
  void GoToEnd();

  /// Lets time pass, at speed 1. True when more is due at once: only a bounded amount is played in
  /// one call.
  bool Pass(Nanoseconds played, const Pace& pace);

  /// Plays as far as the end of the next output.
  void Step();

  /// How long it is until the next record; nothing at the end.
  std::optional<Nanoseconds> Wait(const Pace& pace) const;

  bool AtEnd() const { return !next_; }
  Landing here() const;

  /// The time that the console's clock shows.
  int64_t wall() const;

  /// The last thing that was not output, or a pause that was shortened; may be empty.
  const std::string& note() const { return note_; }

  const VirtualScreen& screen() const { return *screen_; }
  const Decoder& decoder() const { return decoder_; }

  /// The record that comes next, or of which the rest does.
  const std::optional<KeptRecord>& next() const { return next_; }

  /// The pause before it.
  Nanoseconds Pause() const;

 private:
  void Backfill(const journal::Position& record);
  void Fetch();
  void Show(std::string_view bytes);
  void Consume();

  void TellDamage(const journal::Cursor& cursor);

  const Tape& tape_;
  std::unique_ptr<VirtualScreen> screen_;
  Decoder decoder_;
  std::unique_ptr<journal::Cursor> cursor_;
  std::optional<KeptRecord> next_;
  std::string next_note_;
  size_t damages_ = 0;  // that the cursor has told of
  size_t offset_ = 0;   // bytes of it that have been played
  std::optional<Instant> last_;
  Nanoseconds elapsed_{0};  // since then, played
  std::string note_;
};

}  // namespace zevctl
