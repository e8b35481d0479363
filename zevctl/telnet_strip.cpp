#include "telnet_strip.h"

namespace zevctl {

namespace {

constexpr unsigned char kCommandByte = 255;
constexpr unsigned char kNegotiationEnd = 240;
constexpr unsigned char kNegotiationBegin = 250;
constexpr unsigned char kFirstWithOption = 251;
constexpr size_t kLongestNegotiation = 1024;  // what is longer is none

}  // namespace

std::string TelnetStrip::Take(std::string_view bytes) {
  if (place_ == Place::kText && bytes.find(static_cast<char>(kCommandByte)) == bytes.npos) {
    return std::string(bytes);
  }
  std::string text;
  for (const char byte : bytes) {
    if (TakeOne(static_cast<unsigned char>(byte))) text += byte;
  }
  return text;
}

bool TelnetStrip::TakeOne(unsigned char byte) {
  const Place before = place_;
  switch (before) {
    case Place::kText:
      if (byte == kCommandByte) place_ = Place::kCommand;
      return byte != kCommandByte;
    case Place::kCommand:
      negotiation_ = 0;
      place_ = byte == kNegotiationBegin                          ? Place::kNegotiation
               : byte >= kFirstWithOption && byte != kCommandByte ? Place::kOption
                                                                  : Place::kText;
      return byte == kCommandByte;
    case Place::kNegotiation:
      if (byte == kCommandByte) place_ = Place::kNegotiationCommand;
      if (++negotiation_ > kLongestNegotiation) place_ = Place::kText;
      return false;
    case Place::kNegotiationCommand:
      place_ = byte == kNegotiationEnd ? Place::kText : Place::kNegotiation;
      return false;
    case Place::kOption:
      place_ = Place::kText;
      return false;
  }
  return false;
}

}  // namespace zevctl
