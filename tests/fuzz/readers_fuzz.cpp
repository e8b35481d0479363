// The line reader, the character reader and the telnet reader, on a socket on which bytes arrive
// piece by piece: what they return, what they leave for the next reader, and what they echo.
//
// An input is a line with the sizes of the pieces, a line with the options and the bytes. Options:
// one letter for every read, in turn ('l' line, 'c' characters, 'p' characters without echo, 't'
// telnet, for which a piece arrives beforehand); 'w' the reads wait for a limited time; a digit is
// the size of the buffer, from 2 up, twice as much each.
#include <algorithm>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz.h"
#include "util.h"

using namespace zevd;

namespace {

constexpr int kWait = 10;
constexpr char kTimedOutText[] = "003 - Timed out.\r\n";

/// What one read comes to.
struct Outcome {
  int result = 0;
  std::string text;
  std::string echo;
  std::string error;  ///< what a refused user would be told
};

uint8_t Code(char byte) {
  return static_cast<uint8_t>(byte);
}

/// The readers, written down with a plain text in place of a socket.
class Model {
 public:
  Model(std::vector<std::string_view> pieces, size_t size, bool closes)
      : pieces_(std::move(pieces)), size_(size), closes_(closes) {}

  Outcome Read(char reader, bool limited) {
    if (reader == 't') {
      Arrive();
      return {0, TakeTelnet(), {}, {}};
    }
    return reader == 'l' ? ReadLine(limited) : ReadCharacters(reader == 'c', limited);
  }

  const std::string& unread() const { return there_; }

 private:
  void Arrive() {
    if (arrived_ < pieces_.size()) there_ += pieces_[arrived_++];
  }

  // 0 when there is something; else the result of the read.
  int Await(bool limited, Outcome& outcome) {
    if (there_.empty()) Arrive();
    if (!there_.empty()) return 0;
    if (closes_) return -1;
    REQUIRE(limited);
    outcome.error = kTimedOutText;
    return -2;
  }

  char Take() {
    const char byte = there_[0];
    there_.erase(0, 1);
    return byte;
  }

  Outcome ReadLine(bool limited) {
    Outcome outcome;
    outcome.result = Await(limited, outcome);
    const size_t most = std::min(there_.size(), size_ - 1);
    while (outcome.result == 0 && outcome.text.size() < most && !outcome.text.ends_with('\n')) {
      outcome.text += Take();
    }
    return outcome;
  }

  Outcome ReadCharacters(bool echo, bool limited) {
    Outcome outcome;
    std::string& line = outcome.text;
    do {
      outcome.result = Await(limited, outcome);
      if (outcome.result != 0) return outcome;
      if (Code(line.empty() ? there_[0] : line[0]) == 255) {
        line = TakeTelnet();
        return outcome;
      }
      if (TakePeeked(outcome, echo)) return outcome;
    } while (line.empty() || (line.size() < size_ - 1 && !EndsLine(line)));
    if (line.size() < size_ - 1 && line.ends_with('\r')) outcome.echo += '\n';
    return outcome;
  }

  static bool EndsLine(const std::string& line) {
    return line.ends_with('\r') || line.ends_with('\n');
  }

  // As many bytes as one look sees, up to a line end. True when the line was interrupted.
  bool TakePeeked(Outcome& outcome, bool echo) {
    std::string& line = outcome.text;
    const size_t seen = std::min(there_.size(), size_ - line.size());
    for (size_t taken = 0; taken < seen && line.size() < size_ - 1; ++taken) {
      const char byte = Take();
      if (byte == '\b' || byte == 127) {
        Erase(outcome);
      } else if (byte == 3) {
        line.clear();
        outcome.echo += "\r\n";
        return true;
      } else {
        line += byte;
        if (echo || byte == '\r' || byte == '\n') outcome.echo += byte;
        if (byte == '\r') FinishLineEnd(outcome, echo);
        if (byte == '\r' || byte == '\n') return false;
      }
    }
    return false;
  }

  static void Erase(Outcome& outcome) {
    if (outcome.text.empty()) return;
    outcome.text.pop_back();
    outcome.echo += "\b \b";
  }

  void FinishLineEnd(Outcome& outcome, bool echo) {
    if (there_.empty() || (there_[0] != '\n' && there_[0] != '\0')) return;
    if (Take() != '\n') return;
    if (outcome.text.size() < size_ - 1) outcome.text += '\n';
    if (echo) outcome.echo += outcome.text[0];
  }

  std::string TakeTelnet() {
    std::string commands;
    int state = 0;
    while (!there_.empty() && commands.size() < size_ - 1) {
      const uint8_t byte = Code(there_[0]);
      if ((state == 0 && byte != 255) || (state == 1 && byte < 128)) break;
      const bool wants_option = state == 1 && byte >= 251 && byte <= 254;
      state = state == 0 ? 1 : wants_option ? 2 : 0;
      commands += Take();
    }
    return commands;
  }

  std::vector<std::string_view> pieces_;
  size_t arrived_ = 0;
  size_t size_;
  bool closes_;
  std::string there_;  // arrived and not read
};

/// The readers themselves, with a buffer that is no longer than they are told.
class Real {
 public:
  Real(std::vector<std::string_view> pieces, size_t size, bool closes)
      : buffer_(size, 'x'), arrivals_(pair_, std::move(pieces), closes) {}

  Outcome Read(char reader, bool limited, size_t text_size) {
    u_err_msg = nullptr;
    Outcome outcome;
    outcome.result = Call(reader, limited ? kWait : 0);
    outcome.echo = arrivals_.TakeSent();
    outcome.error = u_err_msg == nullptr ? "" : u_err_msg;
    REQUIRE(text_size < buffer_.size());
    if (outcome.result == 0) {
      outcome.text.assign(buffer_.data(), text_size);
      REQUIRE_EQUAL(static_cast<int>(buffer_[text_size]), 0);
    }
    return outcome;
  }

  std::string Unread() const { return fuzz::ReceiveAvailable(pair_.ours()); }

 private:
  int Call(char reader, time_t wait) {
    const auto size = static_cast<int>(buffer_.size());
    switch (reader) {
      case 'l':
        return ReadLineWithTimeout(pair_.ours(), buffer_.data(), size, wait);
      case 't':
        arrivals_.NextPiece();
        DrainTelnetControlSequence(pair_.ours(), buffer_.data(), size);
        return 0;
      default:
        return ReadCharAtATimeWithTimeout(pair_.ours(), buffer_.data(), size, reader == 'c', wait);
    }
  }

  fuzz::SocketPair pair_;
  std::vector<char> buffer_;
  fuzz::Arrivals arrivals_;
};

void Compare(const Outcome& actual, const Outcome& expected) {
  REQUIRE_EQUAL(actual.result, expected.result);
  if (expected.result == 0) REQUIRE_EQUAL(actual.text, expected.text);
  REQUIRE_EQUAL(actual.echo, expected.echo);
  REQUIRE_EQUAL(actual.error, expected.error);
}

size_t BufferSize(std::string_view options) {
  const size_t digit = options.find_first_of("0123456789");
  const int power = digit == std::string_view::npos ? 9 : options[digit] - '0';
  return size_t{2} << power;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::SetUp();
  fuzz::Input input(data, size);
  const std::string_view sizes = input.TakeLine();
  const std::string_view options = input.TakeLine();
  const std::vector<std::string_view> pieces = fuzz::Cut(input.TakeRest(), sizes);
  const bool limited = fuzz::Has(options, 'w');
  Model model(pieces, BufferSize(options), !limited);
  Real real(pieces, BufferSize(options), !limited);
  for (const char reader : options) {
    if (!fuzz::Has("lcpt", reader)) continue;
    const Outcome expected = model.Read(reader, limited);
    Compare(real.Read(reader, limited, expected.result == 0 ? expected.text.size() : 0), expected);
  }
  REQUIRE_EQUAL(real.Unread(), model.unread());
  return 0;
}
