// Consoles by the thousand: one port, one address of 127.0.0.0/8 for each console, one thread for
// all of them.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "net.h"

namespace bench {

/// What a console says when it is called. It also ends the daemon's wait for a telnet negotiation.
inline constexpr std::string_view kGreeting = "ready\r\n";
/// The line that consoles print, 80 bytes with its end. It has no "[": a reader who looks for what
/// the daemon itself says in brackets finds nothing else.
extern const std::string kConsoleLine;
inline constexpr int kLinesPerSecond = 10;

/// A flood repeats these lines. They are as long as kConsoleLine and differ in their number alone,
/// so that a line that is missing, doubled or in a wrong place is noticed.
inline constexpr size_t kFloodCycle = 10'000;
const std::string& FloodLines();

class Farm {
 public:
  Farm();
  Farm(const Farm&) = delete;
  Farm& operator=(const Farm&) = delete;
  ~Farm();

  uint16_t port() const { return port_; }
  static std::string AddressOf(size_t console);

  /// Connections that are up, and those that have ended so far.
  size_t connected() const { return connected_; }
  size_t lost() const { return lost_; }

  /// A console sends back what it receives, unless it is told otherwise:
  /// Answer everything that comes with this text.
  void SetReply(size_t console, const std::string& reply);
  /// Leave everything that comes in the socket.
  void StopReading(size_t console);
  void ReadAgain(size_t console);

  /// Each of the consoles prints the text once.
  void Print(size_t first, size_t count, const std::string& text);
  /// From now on the consoles first .. first + count - 1, and no others, print kLinesPerSecond, a
  /// tenth of them at a time.
  void PrintSteadily(size_t first, size_t count);
  /// The same, one console at a time.
  void PrintEvenly(size_t first, size_t count);
  /// Each of the consoles prints so many of the numbered lines, as fast as it is read. Its numbers
  /// go on where its last flood ended.
  void Flood(size_t first, size_t count, uint64_t lines);
  void EndFlood(size_t first, size_t count) { Flood(first, count, 0); }
  /// Bytes that the console has printed in all its floods so far.
  uint64_t FloodedBytes(size_t console);

 private:
  struct Console {
    explicit Console(Descriptor connection) : sock(std::move(connection)) {}
    Descriptor sock;
    std::string pending;      // could not be sent yet
    std::string reply;        // instead of an echo
    uint64_t flooded = 0;     // bytes
    uint64_t flood_left = 0;  // bytes
    bool reading = true;
    bool watched_for_room = false;
  };

  // All of these run on the farm's own thread.
  void Live();
  void RunTasks();
  void PrintInTurns(size_t first, size_t count, size_t turns);
  void PrintDue();
  void AcceptAll();
  void Serve(size_t number, uint32_t events);
  bool Receive(Console& console);
  void Send(size_t number, Console& console, std::string_view text);
  void SendMore(size_t number, Console& console);
  static bool SendPending(Console& console);
  static bool SendFlood(Console& console);
  void Watch(size_t number, Console& console, bool for_room);
  void Drop(size_t number);
  Console& Find(size_t number);

  /// Runs the task on the farm's thread and waits for it. One caller at a time.
  void Do(const std::function<void()>& task);

  Descriptor listener_;
  uint16_t port_;
  Descriptor poll_;
  Descriptor task_bell_;
  Descriptor clock_;
  std::map<size_t, std::unique_ptr<Console>> consoles_;
  size_t first_printing_ = 0;
  size_t printing_ = 0;
  size_t turns_ = 1;  // ticks of the clock from one line of a console to its next
  size_t tick_ = 0;
  std::atomic<size_t> connected_{0};
  std::atomic<size_t> lost_{0};
  std::atomic<const std::function<void()>*> task_{nullptr};
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

}  // namespace bench
