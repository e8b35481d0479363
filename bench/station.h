// The daemon with its files, and the consoles that it calls.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "farm.h"
#include "process.h"
#include "user.h"

namespace bench {

/// What one console's line of the configuration says.
struct ConsolePlan {
  bool logging = true;
  std::string event_file;  // none when empty
  uint16_t mapped_port = 0;
  bool login = false;  // on the mapped port
  uint16_t port = 0;   // of a console that cannot be connected; 0: the farm's
};

/// A station that runs from the construction on, all consoles of the farm connected.
class Station {
 public:
  /// `options` are given to the daemon beside those that every station needs.
  Station(const std::string& daemon, Farm& farm, std::vector<ConsolePlan> consoles,
          bool security = false, const std::vector<std::string>& options = {});

  Process& daemon() { return *daemon_; }
  /// Seconds from the daemon's start until every console of the farm was connected.
  double start_seconds() const { return start_seconds_; }

  /// A user who is attached when this returns.
  User Attach(size_t console, int receive_buffer = 0) const;
  /// A user who has asked for the console and not read anything yet.
  User Call(size_t console, int receive_buffer = 0) const;
  /// A user of the console's own port. With security on and no login nothing is asked there.
  User AttachToMappedPort(size_t console) const;
  /// A connection to the console's own port that says nothing yet.
  Descriptor CallMappedPort(size_t console) const;
  Tool NewTool() const;
  /// A connection to the command port that says nothing yet.
  Descriptor CallCommandPort() const;
  uint16_t port() const { return port_; }

  /// Writes a configuration of one more console; Reload() makes the daemon read it.
  void AddConsole();
  void Reload() const;
  /// Makes the daemon begin a new directory of logs, and waits until it has; it may begin it more
  /// than once. It reads its files twice for that.
  void Rotate();
  /// Makes the daemon keep a journal, or do without one, and waits until it does.
  void KeepJournal(bool keep) const;
  /// What is in the journal's directory; 0 without one.
  static uintmax_t JournalSize();
  size_t consoles() const { return consoles_.size(); }
  /// Throws when the daemon has ended or a console was lost.
  void CheckWhole();

  static std::string NameOf(size_t console);
  static std::string LogOf(size_t console);
  static std::string ConsolidatedLog();
  /// Makes an empty root. What the next station is to find there is written afterwards.
  static void ClearRoot();
  static void WriteEventFile(const std::string& name, const std::string& lines);
  /// A password helper that ends only when EndHangingHelpers() is called.
  static void WriteHangingHelper();
  static void EndHangingHelpers();

 private:
  std::string ConfigurationLine(size_t console) const;
  void WriteConfiguration() const;
  static void SetArchiveInterval(int days);
  static void WriteSettings(const std::string& text);
  bool KeepsJournal() const;
  size_t Reachable() const;
  void WaitUntilConnected();
  bool Listens() const;

  Farm& farm_;
  std::vector<ConsolePlan> consoles_;
  bool security_;
  uint16_t port_;
  size_t lost_before_;
  std::unique_ptr<Process> daemon_;
  double start_seconds_ = 0;
  size_t rotations_ = 0;
};

/// So many consoles that have nothing special.
inline std::vector<ConsolePlan> PlainConsoles(size_t count) {
  return std::vector<ConsolePlan>(count);
}

}  // namespace bench
