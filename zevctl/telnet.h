// Telnet, as bytes in and bytes out, without a socket.
#pragma once

#include <memory>
#include <string>
#include <string_view>

// Of <libtelnet.h>.
struct telnet_t;
union telnet_event_t;

namespace zevctl {

/// The user's end of a telnet connection. The other end may echo, suppress go-ahead and use binary
/// mode; every other option is declined.
class TelnetStream {
 public:
  TelnetStream();
  TelnetStream(const TelnetStream&) = delete;
  TelnetStream& operator=(const TelnetStream&) = delete;

  /// Takes what came over the connection: text and telnet commands.
  void Receive(std::string_view bytes);

  /// Sends what was typed. To a console that speaks telnet, a carriage return becomes what telnet
  /// sends for the Enter key.
  void SendKeys(std::string_view keys);

  /// Sends bytes as they are.
  void SendData(std::string_view bytes);

  void SendBreak();

  /// The text that has come since the last call.
  std::string TakeText();

  /// The bytes to be sent over the connection since the last call: answers, keys and breaks.
  std::string TakeWire();

 private:
  static void OnEvent(telnet_t* telnet, telnet_event_t* event, void* stream);
  void Take(const telnet_event_t& event);
  void EndDecompression();
  size_t PieceLength(std::string_view bytes);

  std::unique_ptr<telnet_t, void (*)(telnet_t*)> telnet_;
  bool spoken_ = false;      // the other end has sent a telnet command
  bool after_iac_ = false;   // what comes next may be one
  bool binary_ = false;      // keys are sent as they are
  bool compressed_ = false;  // the library takes what it is given for compressed data
  std::string text_;
  std::string wire_;
};

/// Removes the daemon's own offers from the start of a session, and completes those of the console,
/// which come before them and end where the console began to ask for binary mode. Nobody wants an
/// answer to the daemon's: the console would get it as keys that were never typed, the last of them
/// the interrupt key.
class OfferFilter {
 public:
  /// What is left of the bytes; nothing as long as the offers may still come.
  std::string Pass(std::string_view bytes);

 private:
  bool over_ = false;
  std::string held_;
};

}  // namespace zevctl
