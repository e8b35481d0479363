// A record of the journal as all viewers are sent it, and the console's bytes in it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "journal/journal.h"
#include "telnet_strip.h"

namespace zevweb {

/// Never changes once it is made; shared by all who are sent it.
struct WebRecord {
  journal::Position position;
  journal::Position next;
  journal::Kind kind = journal::Kind::kOutput;
  int64_t wall = 0;
  std::string frame;   ///< binary for output, else text
  size_t head = 0;     ///< of output: how much of the frame is not the console's bytes
  std::string user;    ///< of attached and left: the name that counts for others
  std::string from;    ///< likewise, the address
  std::string mode;    ///< likewise, the daemon's word
  std::string reason;  ///< of left
  bool is_output() const { return kind == journal::Kind::kOutput; }
  std::string_view bytes() const { return std::string_view(frame).substr(head); }
};

using WebRecordPointer = std::shared_ptr<const WebRecord>;

/// What viewers are told of a console: neither what was typed there nor what stands in the audit,
/// nor the definitions, which each segment begins with.
journal::Kinds ViewedKinds();

/// What listeners to events are told: everything but what consoles print, what was typed there and
/// definitions.
journal::Kinds EventKinds();

/// `strip`: of the record's console, with all that came before.
WebRecordPointer MakeWebRecord(const journal::Record& record, zevctl::TelnetStrip& strip,
                               bool is_past);

/// The strip as it is before the position: a telnet command may be cut by the end of a record.
zevctl::TelnetStrip StripBefore(const journal::Journal& journal, size_t console,
                                const journal::Position& position);

}  // namespace zevweb
