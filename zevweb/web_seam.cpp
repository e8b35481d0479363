#include "web_seam.h"

#include <vector>

#include "attach_seam.h"
#include "telnet_strip.h"
#include "web_record.h"

namespace zevweb {

namespace {

using journal::Kind;
using journal::KindBit;

journal::Query OutputOf(size_t console, const journal::Position& place) {
  journal::Query query;
  query.consoles = {console};
  query.kinds = KindBit(Kind::kOutput);
  query.from = place;
  return query;
}

// At least so many bytes, if there are as many.
std::string Before(const journal::Journal& journal, size_t console, const journal::Position& place,
                   size_t bytes) {
  journal::Query query = OutputOf(console, place);
  query.backward = true;
  const auto cursor = journal.Read(query);
  std::vector<std::string> pieces;
  journal::Record record;
  for (size_t held = 0; held < bytes && cursor->Next(&record); held += record.payload.size()) {
    pieces.emplace_back(record.payload);
  }
  zevctl::TelnetStrip strip;
  std::string text;
  for (auto piece = pieces.rbegin(); piece != pieces.rend(); ++piece) text += strip.Take(*piece);
  return text;
}

std::string After(const journal::Journal& journal, size_t console, const journal::Position& place,
                  size_t bytes) {
  const auto cursor = journal.Read(OutputOf(console, place));
  zevctl::TelnetStrip strip = StripBefore(journal, console, place);
  std::string text;
  journal::Record record;
  while (text.size() < bytes && cursor->Next(&record)) text += strip.Take(record.payload);
  return text;
}

}  // namespace

WebSeam FindSeam(const journal::Journal& journal, size_t console, const journal::Position& place,
                 const std::string& received) {
  const std::string before = Before(journal, console, place, received.size());
  const std::string after = After(journal, console, place, received.size());
  return {zevctl::RepeatedBytes(received, before, after),
          zevctl::ProbablyRepeatedBytes(received, before)};
}

}  // namespace zevweb
