// Attachments to consoles through the main port, and the one thread that moves their bytes.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "descriptor.h"
#include "login.h"
#include "telnet.h"

namespace zevweb {

/// One user at a console. All members may be called by any thread.
class WebAttach {
 public:
  using Clock = std::chrono::steady_clock;

  /// What the console printed, telnet's commands left out: at most so much, taken off the front.
  std::string Take(size_t most);

  /// The front of it, which stays.
  std::string Front(size_t most) const;

  /// Sends what was typed: all of it, or nothing when too much waits already. False then.
  bool Send(std::string_view typed);
  void SendBreak();

  /// Ends it: what the daemon has sent until then still comes.
  void Leave();

  /// The daemon has closed the connection, and all of the output has been taken.
  bool IsOver() const;

  /// The daemon's last words about the end, in words for a person; empty without any.
  std::string LastWords() const;

 private:
  friend class WebAttaches;
  WebAttach(zevctl::Opening opening, std::function<void()> came);

  void Receive();
  void Write();
  void TakeBytes(std::string_view bytes);
  short Events() const;
  bool IsFinished(Clock::time_point now);

  mutable std::mutex mutex_;
  zevctl::Socket socket_;
  const std::function<void()> came_;
  std::function<void()> changed_;
  zevctl::OfferFilter offers_;
  zevctl::TelnetStream telnet_;
  std::string output_;
  std::string wire_;
  std::string tail_;  // the end of what came
  bool has_left_ = false;
  bool is_shut_ = false;
  bool is_closed_ = false;
  Clock::time_point left_at_;
};

class WebAttaches {
 public:
  WebAttaches();
  ~WebAttaches();
  WebAttaches(const WebAttaches&) = delete;
  WebAttaches& operator=(const WebAttaches&) = delete;

  /// `came` is called on the thread's own when there is output, or the end has come.
  std::shared_ptr<WebAttach> Add(zevctl::Opening opening, std::function<void()> came);

 private:
  void Loop();
  void Wake();

  zevctl::Descriptor wake_;
  std::mutex mutex_;
  bool ends_ = false;
  std::vector<std::shared_ptr<WebAttach>> attaches_;
  std::thread thread_;
};

}  // namespace zevweb
