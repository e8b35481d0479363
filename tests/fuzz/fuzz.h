// What the fuzz harnesses share: checks, input taken apart, sockets, a private station root,
// captured debug output and a peer whose bytes arrive piece by piece.
//
// A harness is one file NAME_fuzz.cpp with a function LLVMFuzzerTestOneInput() that gives one input
// to a parser of foreign bytes and compares what comes out with a model: the same rules written
// down once more, in the plainest way, without regard to speed. The same file is built twice: into
// a fuzzer, and into a test that replays corpus/NAME.
//
// Harnesses link a copy of the daemon whose root directory is the relative path "root". Its clock
// stands still at kNow, in UTC.
#pragma once

#include <sys/types.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "user.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

using namespace zevd;

// ---- Checks -------------------------------------------------------------------------------------

/// Ends the process so that the fuzzer keeps the input.
[[noreturn]] void Fail(const char* what, const char* file, int line);
[[noreturn]] void FailEqual(const char* what, const std::string& actual,
                            const std::string& expected, const char* file, int line);

/// A text as it is, a number in digits; what a failed check prints.
inline std::string Shown(std::string_view text) {
  return std::string(text);
}
template <std::integral T>
std::string Shown(T number) {
  return std::to_string(number);
}
std::string Shown(const std::vector<std::string>& texts);

template <typename Actual, typename Expected>
void RequireEqual(const Actual& actual, const Expected& expected, const char* what,
                  const char* file, int line) {
  if (!(actual == expected)) FailEqual(what, Shown(actual), Shown(expected), file, line);
}

#define REQUIRE(condition) \
  ((condition) ? void() : ::fuzz::Fail(#condition, __FILE_NAME__, __LINE__))

#define REQUIRE_EQUAL(actual, expected) \
  ::fuzz::RequireEqual(actual, expected, #actual, __FILE_NAME__, __LINE__)

// ---- Input --------------------------------------------------------------------------------------

/// Takes an input apart from the front. Inputs begin with lines of options, so that a corpus can be
/// written by hand; an input that is used up gives empty texts.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

  bool AtEnd() const { return rest_.empty(); }
  std::string_view TakeLine();  ///< without its line feed
  std::string_view TakeRest();

 private:
  std::string_view rest_;
};

/// True when the options contain the letter.
inline bool Has(std::string_view options, char letter) {
  return options.find(letter) != std::string_view::npos;
}

/// Cuts bytes into pieces. Each byte of `sizes`, taken round and round, is the length of one: 'a'
/// to 'z' 1 to 26, 'A' to 'Z' 40 to 1040, others up to 7. No sizes: all in one piece.
std::vector<std::string_view> Cut(std::string_view bytes, std::string_view sizes);

/// What fgets() makes of a file: its lines, of at most so many bytes at a time, each up to a NUL.
std::vector<std::string> Lines(std::string_view content, size_t longest);

/// What a function that takes a C string sees.
std::string UpToNul(std::string_view bytes);

// ---- The daemon's surroundings ------------------------------------------------------------------

constexpr time_t kNow = 1'300'000'000;
constexpr char kStamp[] = "11/03/13_07:06:40";

/// Once for the process: a new working directory that holds the directories of a station, global
/// lists, no SIGPIPE, and debug output that goes nowhere. The directory is removed at the end.
void SetUp();

/// Writes a file below the working directory.
void WriteFile(const char* path, std::string_view content);
std::string ReadFile(const char* path);

/// Records debug output for as long as it lives.
class DebugRecorder {
 public:
  explicit DebugRecorder(int level);
  ~DebugRecorder();
  DebugRecorder(const DebugRecorder&) = delete;
  DebugRecorder& operator=(const DebugRecorder&) = delete;

  std::string Output();  ///< everything since the beginning

 private:
  off_t start_;
};

/// The same output as the messages alone would give: stamped, cut and with repetitions counted.
std::string AsDebugOutput(const std::vector<std::string>& messages);

/// The console's lists are emptied and its sockets closed when it goes.
class Lists {
 public:
  Lists() { SetUp(); }
  ~Lists();
  Lists(const Lists&) = delete;
  Lists& operator=(const Lists&) = delete;
};

ConsoleNode* AddConsole(ConsoleList* list, const char* name, int sock, int status,
                        const char* model = "none");

/// Puts a user on the console's list and on user_list; the lists own the socket.
UserNode* AddUser(ConsoleNode* cnode, const char* name, int sock, int mode);

// ---- Sockets ------------------------------------------------------------------------------------

/// Two connected stream sockets: the daemon's end and its peer's.
class SocketPair {
 public:
  SocketPair();
  ~SocketPair();
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;

  int ours() const { return ends_[0]; }
  int theirs() const { return ends_[1]; }
  int ReleaseOurs();

 private:
  int ends_[2] = {-1, -1};
};

void SendAll(int sock, std::string_view bytes);

/// What is there now; nothing is waited for.
std::string ReceiveAvailable(int sock);

/// While it lives, a wait without a limit, or with one of seconds, that finds nothing on `sock`
/// lets the next piece arrive from its peer. After the last piece such a wait runs out, or, if
/// `closes`, finds the end of the stream. Waits of less than a second never let anything arrive,
/// and no wait takes any time.
class Arrivals {
 public:
  Arrivals(const SocketPair& pair, std::vector<std::string_view> pieces, bool closes);
  ~Arrivals();
  Arrivals(const Arrivals&) = delete;
  Arrivals& operator=(const Arrivals&) = delete;

  /// Lets the next piece arrive; false when there is none.
  bool NextPiece();

  /// The same, or the end of the stream; false when there is neither.
  bool Next();
  int sock() const { return sock_; }

  void AddSent(std::string_view bytes) { sent_ += bytes; }
  std::string TakeSent() { return std::exchange(sent_, {}); }

 private:
  int sock_;
  int peer_;
  std::vector<std::string_view> pieces_;
  std::string sent_;
  size_t arrived_ = 0;
  bool closes_;
};

}  // namespace fuzz
