#include "telnet.h"

#include <libtelnet.h>

#include <algorithm>
#include <new>
#include <utility>

namespace zevctl {

namespace {

// For each option, whether this end may use it and whether the other end may.
constexpr telnet_telopt_t kOptions[] = {
    {TELNET_TELOPT_ECHO, TELNET_WONT, TELNET_DO},
    {TELNET_TELOPT_SGA, TELNET_WILL, TELNET_DO},
    {TELNET_TELOPT_BINARY, TELNET_WILL, TELNET_DO},
    {-1, 0, 0},
};

// Echo, and no go-ahead. The daemon sends the console's offers before them, up to 64 bytes.
constexpr std::string_view kDaemonOffers = "\xFF\xFB\x01\xFF\xFB\x03";
constexpr size_t kLongestStart = 64 + kDaemonOffers.size();
constexpr size_t kFullStart = 63;  // offers of this length were cut for want of room

constexpr char kIac = static_cast<char>(TELNET_IAC);

// The Enter key in character mode (RFC 854): a carriage return that is not part of a line end is
// followed by a NUL.
std::string WithEnters(std::string_view keys) {
  std::string converted;
  for (const char key : keys) {
    converted.push_back(key);
    if (key == '\r') converted.push_back('\0');
  }
  return converted;
}

bool HasOption(char command) {
  const auto code = static_cast<unsigned char>(command);
  return code >= TELNET_WILL && code <= TELNET_DONT;
}

// Length of the text byte or the command at the front, even if not all of it is there.
size_t FrontLength(std::string_view bytes) {
  if (bytes[0] != kIac) return 1;
  return bytes.size() > 1 && HasOption(bytes[1]) ? 3 : 2;
}

// How much of the offers is complete commands.
size_t CompleteLength(std::string_view offers) {
  size_t end = 0;
  while (end < offers.size()) {
    const std::string_view rest = offers.substr(end);
    const size_t length = FrontLength(rest);
    if (length > rest.size()) break;
    end += length;
  }
  return end;
}

// The console's offers as it made them. The daemon keeps them as a C string, which ends before the
// number of the binary option, 0: so that is the option of a command without one. A console that
// offers to be binary asks for the same behind it, as a rule; one that does not refuses it when it
// is answered.
std::string Completed(std::string_view offers) {
  constexpr char kBinary = TELNET_TELOPT_BINARY;
  const size_t kept = CompleteLength(offers);
  std::string completed(offers.substr(0, kept));
  const std::string_view cut = offers.substr(kept);
  if (cut.size() != 2 || offers.size() >= kFullStart) return completed;
  completed.append(cut).push_back(kBinary);
  if (cut[1] == static_cast<char>(TELNET_WILL)) {
    completed.append({kIac, static_cast<char>(TELNET_DO), kBinary});
  }
  return completed;
}

}  // namespace

TelnetStream::TelnetStream() : telnet_(telnet_init(kOptions, OnEvent, 0, this), telnet_free) {
  if (!telnet_) throw std::bad_alloc();
}

// The library begins to decompress when the other end says so, asked or not, even in the middle of
// what it was given. So it gets pieces that end where that can happen.
void TelnetStream::Receive(std::string_view bytes) {
  while (!bytes.empty()) {
    const size_t end = PieceLength(bytes);
    telnet_recv(telnet_.get(), bytes.data(), end);
    if (compressed_) EndDecompression();
    bytes.remove_prefix(end);
  }
}

// The length up to and including the byte that tells which command it is. The library does not
// report what the other end says about options that this end refuses, so it is noted here that a
// command has come at all.
size_t TelnetStream::PieceLength(std::string_view bytes) {
  for (size_t i = 0; i < bytes.size(); ++i) {
    const bool is_iac = bytes[i] == kIac;
    const bool tells_command = std::exchange(after_iac_, is_iac && !after_iac_);
    spoken_ = spoken_ || (tells_command && !is_iac);
    if (tells_command) return i + 1;
  }
  return bytes.size();
}

// No compressed data begins with two zeros: the library gives up and goes on with plain text.
void TelnetStream::EndDecompression() {
  telnet_recv(telnet_.get(), "\0\0", 2);
}

// For a console that does not speak telnet, the NUL would be one more key.
void TelnetStream::SendKeys(std::string_view keys) {
  if (spoken_ && !binary_) {
    SendData(WithEnters(keys));
  } else {
    SendData(keys);
  }
}

void TelnetStream::SendData(std::string_view bytes) {
  telnet_send(telnet_.get(), bytes.data(), bytes.size());
}

void TelnetStream::SendBreak() {
  telnet_iac(telnet_.get(), TELNET_BREAK);
}

std::string TelnetStream::TakeText() {
  return std::exchange(text_, {});
}

std::string TelnetStream::TakeWire() {
  return std::exchange(wire_, {});
}

void TelnetStream::OnEvent(telnet_t* /*telnet*/, telnet_event_t* event, void* stream) {
  static_cast<TelnetStream*>(stream)->Take(*event);
}

// Commands and subnegotiations ask for nothing that this end has. After a sequence that makes no
// sense the library goes on with text.
void TelnetStream::Take(const telnet_event_t& event) {
  switch (event.type) {
    case TELNET_EV_DATA:
      text_.append(event.data.buffer, event.data.size);
      break;
    case TELNET_EV_SEND:
      wire_.append(event.data.buffer, event.data.size);
      break;
    case TELNET_EV_DO:
    case TELNET_EV_DONT:
      if (event.neg.telopt == TELNET_TELOPT_BINARY) binary_ = event.type == TELNET_EV_DO;
      break;
    case TELNET_EV_COMPRESS:
      compressed_ = event.compress.state != 0;
      break;
    default:
      break;
  }
}

// The console may have offered the same: then the first offers are removed, and the second ones are
// answered.
std::string OfferFilter::Pass(std::string_view bytes) {
  if (over_) return std::string(bytes);
  held_ += bytes;
  const size_t place = held_.find(kDaemonOffers);
  over_ = place != std::string::npos || held_.size() >= kLongestStart;
  if (!over_) return {};
  if (place != std::string::npos) {
    const std::string offers = Completed(std::string_view(held_).substr(0, place));
    held_.replace(0, place + kDaemonOffers.size(), offers);
  }
  return std::exchange(held_, {});
}

}  // namespace zevctl
