#include "replay_export.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "journal_text.h"
#include "output.h"
#include "replay_player.h"

namespace zevctl {

namespace {

using journal::Kind;

constexpr int64_t kSecond = 1'000'000'000;  // nanoseconds

constexpr std::array kMarked = {
    Kind::kAttached, Kind::kLeft,      Kind::kMode,    Kind::kConnected, Kind::kLost,
    Kind::kDisabled, Kind::kEnabled,   Kind::kMessage, Kind::kBreak,     Kind::kEvent,
    Kind::kPaused,   Kind::kNotLogged, Kind::kGap,     Kind::kClockStep, Kind::kStarted,
    Kind::kStopped,  Kind::kTorn,
};

bool IsMarked(Kind kind) {
  return std::find(kMarked.begin(), kMarked.end(), kind) != kMarked.end();
}

std::string Header(const AsciicastOptions& options, int64_t wall) {
  nlohmann::ordered_json header = {
      {"version", 2},
      {"width", options.size.columns},
      {"height", options.size.rows},
      {"timestamp", wall / kSecond},
  };
  if (options.most_idle) {
    header["idle_time_limit"] = static_cast<double>(options.most_idle->count()) / kSecond;
  }
  header["title"] = Utf8(options.title + ", " + StampText(wall).substr(0, 19));
  return EscapedJson(header.dump()) + "\n";
}

/// Writes the records of a tape one by one.
class AsciicastWriter {
 public:
  /// Goes on behind what the decoder has had.
  AsciicastWriter(const Tape& tape, const TextSink& sink, const Decoder& decoder)
      : tape_(tape), sink_(sink), decoder_{decoder.telnet, decoder.filter} {}

  void Take(const journal::Record& record) {
    const Instant instant = InstantOf(record);
    if (last_) time_ += tape_.Pause(*last_, instant);
    last_ = instant;
    if (record.header.kind == Kind::kOutput) {
      Write('o', decoder_.Take(record.payload));
    } else if (IsMarked(record.header.kind)) {
      Write('m', Harmless(RecordText(record)));
    }
  }

  void Finish() { Write('o', decoder_.filter.Finish()); }

  void Write(char kind, const std::string& text) {
    if (!text.empty()) sink_(AsciicastEvent(time_, kind, text));
  }

 private:
  struct Drawn {
    TelnetStrip telnet;
    DrawingFilter filter;
    std::string Take(std::string_view bytes) { return filter.Take(telnet.Take(bytes)); }
  };

  const Tape& tape_;
  const TextSink& sink_;
  Drawn decoder_;
  std::optional<Instant> last_;
  Nanoseconds time_{0};
};

}  // namespace

std::string AsciicastEvent(Nanoseconds time, char kind, std::string_view text) {
  std::array<char, 40> seconds{};
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(time).count();
  snprintf(seconds.data(), seconds.size(), "%" PRId64 ".%06" PRId64,
           static_cast<int64_t>(micros / 1'000'000), static_cast<int64_t>(micros % 1'000'000));
  const nlohmann::json data = Utf8(text);
  return std::string("[") + seconds.data() + ", \"" + kind + "\", " + EscapedJson(data.dump()) +
         "]\n";
}

std::vector<journal::Damage> ExportAsciicast(const Tape& tape, const AsciicastOptions& options,
                                             const TextSink& sink) {
  const auto cursor = tape.FromStart();
  journal::Record record;
  if (!cursor->Next(&record)) return cursor->damages();
  sink(Header(options, record.header.wall));
  const Player start(tape, options.size);
  AsciicastWriter writer(tape, sink, start.decoder());
  writer.Write('o', start.screen().Picture());
  do {
    writer.Take(record);
  } while (cursor->Next(&record));
  writer.Finish();
  return cursor->damages();
}

std::vector<journal::Damage> ExportText(const Tape& tape, const TextSink& sink) {
  const auto cursor = tape.FromStart();
  journal::Record record;
  Decoder decoder = Player(tape, {}).decoder();  // with the line that the start cuts in two
  while (cursor->Next(&record)) {
    if (record.header.kind != Kind::kOutput) continue;
    decoder.Take(
        record.payload, [](std::string_view) {},
        [&](const std::string& line) { sink(line + "\n"); });
  }
  const std::string rest = decoder.Finish();
  if (!rest.empty()) sink(rest + "\n");
  return cursor->damages();
}

}  // namespace zevctl
