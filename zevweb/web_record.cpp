#include "web_record.h"

#include <nlohmann/json.hpp>

#include "journal/journal_fields.h"
#include "web_frames.h"

namespace zevweb {

namespace {

using journal::Field;
using journal::Kind;
using journal::KindBit;

std::string FirstOf(std::string_view first, std::string_view second) {
  return std::string(first.empty() ? second : first);
}

bool TellsOfUser(Kind kind) {
  return kind == Kind::kAttached || kind == Kind::kLeft || kind == Kind::kMode;
}

}  // namespace

journal::Kinds ViewedKinds() {
  return journal::kAllKinds &
         ~(KindBit(Kind::kInput) | KindBit(Kind::kAudit) | KindBit(Kind::kConsole));
}

journal::Kinds EventKinds() {
  return journal::kAllKinds &
         ~(KindBit(Kind::kInput) | KindBit(Kind::kOutput) | KindBit(Kind::kConsole));
}

WebRecordPointer MakeWebRecord(const journal::Record& record, zevctl::TelnetStrip& strip,
                               bool is_past) {
  auto made = std::make_shared<WebRecord>();
  made->position = record.position;
  made->next = record.next;
  made->kind = record.header.kind;
  made->wall = record.header.wall;
  if (made->is_output()) {
    const std::string text = strip.Take(record.payload);
    made->frame = OutputFrame(is_past ? OutputKind::kPast : OutputKind::kLive, record.next,
                              record.header.wall, text);
    made->head = made->frame.size() - text.size();
    return made;
  }
  made->frame = TextFrame("record", RecordData(record));
  if (!TellsOfUser(made->kind)) return made;
  const journal::FieldReader fields(record.payload);
  made->user = FirstOf(fields.Text(Field::kGivenUser), fields.Text(Field::kUser));
  made->from = FirstOf(fields.Text(Field::kGivenFrom), fields.Text(Field::kFrom));
  made->mode = fields.Text(Field::kMode);
  made->reason = fields.Text(Field::kReason);
  return made;
}

zevctl::TelnetStrip StripBefore(const journal::Journal& journal, size_t console,
                                const journal::Position& position) {
  journal::Query query;
  query.consoles = {console};
  query.kinds = KindBit(Kind::kOutput);
  query.from = position;
  query.backward = true;
  const auto cursor = journal.Read(query);
  zevctl::TelnetStrip strip;
  journal::Record record;
  if (cursor->Next(&record)) strip.Take(record.payload);
  return strip;
}

}  // namespace zevweb
