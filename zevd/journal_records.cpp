#include "journal_records.h"

#include <atomic>
#include <cstring>

#include "clock.h"
#include "fixed_text.h"
#include "journal_fields.h"
#include "journal_queue.h"
#include "list.h"
#include "telnet_bytes.h"

namespace zevd {

using journal::Field;
using journal::FieldWriter;
using journal::Kind;

namespace {

constexpr size_t kFewFields = 4 * kNameSize + 512;
constexpr size_t kLongText = 8192;  // a line, or what one read of a user brings
constexpr size_t kAuditText = 256;  // as in the system log
constexpr char kHeld[] = "A user holds the console exclusively and revocably.";
constexpr char kLoggingOff[] = "The console's logging flag is not 1.";

std::atomic<JournalInput> journal_input{JournalInput::kNone};

/// The payload of one record, built on the stack.
template <size_t kSize>
class Payload {
 public:
  template <typename Text>
  Payload& Add(Field field, const Text& text) {
    fields_.Add(field, text);
    return *this;
  }
  Payload& AddNumber(Field field, int64_t number) {
    fields_.AddNumber(field, number);
    return *this;
  }
  Payload& AddIdentity(const Identity& who) {
    return Add(Field::kUser, static_cast<const char*>(who.user))
        .Add(Field::kGivenUser, static_cast<const char*>(who.given_user))
        .Add(Field::kFrom, static_cast<const char*>(who.from))
        .Add(Field::kGivenFrom, static_cast<const char*>(who.given_from));
  }

  void Push(Kind kind, uint32_t console) const {
    journal_queue.Push(kind, console, {room_, fields_.length()});
  }

 private:
  char room_[kSize];
  FieldWriter fields_{room_, kSize};
};

bool IsOn() {
  return journal_queue.IsOn();
}

// The name that a login has proved, or else the one that was given.
const char* NameOf(const Identity& who) {
  return who.user[0] != '\0' ? who.user : who.given_user;
}

std::string_view WithoutLineEnd(std::string_view text) {
  const size_t last = text.find_last_not_of("\r\n");
  return text.substr(0, last == std::string_view::npos ? 0 : last + 1);
}

// ---- Pauses -------------------------------------------------------------------------------------

// Why the console's output is not kept, or null. As in WriteBuffer(), the first user counts.
const char* CauseOfPause(const ConsoleNode& cnode) {
  if (cnode.logging != 1) return kLoggingOff;
  const UserListElem* first = cnode.user_list->head;
  const bool held = first != nullptr && first->unode->mode == kExclusiveRevocable;
  return held ? kHeld : nullptr;
}

const char* HolderOf(const ConsoleNode& cnode, const char* cause) {
  return cause == kHeld ? NameOf(cnode.user_list->head->unode->identity) : "";
}

void EndPause(ConsoleNode* cnode) {
  ConsoleJournal& state = cnode->journal;
  if (state.pause_reason == nullptr) return;
  Payload<kFewFields>()
      .AddNumber(Field::kBegin, state.pause_begin)
      .AddNumber(Field::kEnd, WallNanoseconds())
      .AddNumber(Field::kBytes, static_cast<int64_t>(state.bytes_left_out))
      .Add(Field::kUser, static_cast<const char*>(state.holder))
      .Add(Field::kReason, state.pause_reason)
      .Push(Kind::kNotLogged, state.number);
  state.pause_reason = nullptr;
}

void BeginPause(ConsoleNode* cnode, const char* cause) {
  ConsoleJournal& state = cnode->journal;
  state.pause_reason = cause;
  state.pause_begin = WallNanoseconds();
  state.bytes_left_out = 0;
  CopyText(state.holder, HolderOf(*cnode, cause));
  Payload<kFewFields>()
      .Add(Field::kUser, static_cast<const char*>(state.holder))
      .Add(Field::kReason, cause)
      .Push(Kind::kPaused, state.number);
}

}  // namespace

void SetJournalInput(JournalInput input) {
  journal_input = input;
}

// ---- Consoles -----------------------------------------------------------------------------------

void JournalName(ConsoleNode* cnode) {
  static std::atomic<uint32_t> last_number{0};
  if (cnode->journal.number == 0) cnode->journal.number = ++last_number;
  if (!IsOn()) return;
  Payload<kFewFields>()
      .Add(Field::kName, static_cast<const char*>(cnode->cname))
      .Add(Field::kAddress, static_cast<const char*>(cnode->ipaddr))
      .AddNumber(Field::kPort, cnode->cons_port)
      .Push(Kind::kConsole, cnode->journal.number);
}

void JournalNamesOf(const ConsoleList& list) {
  for (ConsoleNode* cnode : Nodes(list)) JournalName(cnode);
}

void JournalPausesOf(const ConsoleList& list) {
  for (ConsoleNode* cnode : Nodes(list)) {
    cnode->journal.pause_reason = nullptr;
    JournalPause(cnode);
  }
}

void JournalGone(ConsoleNode* cnode) {
  if (!IsOn()) return;
  EndPause(cnode);
  Payload<kFewFields>()
      .Add(Field::kName, static_cast<const char*>(cnode->cname))
      .Push(Kind::kConsoleGone, cnode->journal.number);
}

bool JournalOutput(ConsoleNode* cnode, const char* bytes, size_t count) {
  if (!IsOn()) return false;
  JournalPause(cnode);
  if (cnode->journal.pause_reason == nullptr) {
    return journal_queue.PushQuietly(Kind::kOutput, cnode->journal.number, {bytes, count});
  }
  cnode->journal.bytes_left_out += count;
  return false;
}

void JournalPause(ConsoleNode* cnode) {
  if (!IsOn()) return;
  const char* cause = CauseOfPause(*cnode);
  const ConsoleJournal& state = cnode->journal;
  if (cause == state.pause_reason &&
      (cause == nullptr || strcmp(state.holder, HolderOf(*cnode, cause)) == 0)) {
    return;
  }
  EndPause(cnode);
  if (cause != nullptr) BeginPause(cnode, cause);
}

void JournalConnected(const ConsoleNode* cnode) {
  journal_queue.Push(Kind::kConnected, cnode->journal.number, {});
}

void JournalLost(const ConsoleNode* cnode, const char* reason) {
  if (!IsOn()) return;
  Payload<kFewFields>().Add(Field::kReason, reason).Push(Kind::kLost, cnode->journal.number);
}

void JournalClosed(const ConsoleNode* cnode) {
  const int error = cnode->receive_error;
  if (cnode->enable == 0) return JournalLost(cnode, "The console was disabled.");
  if (error == 0) return JournalLost(cnode, "The console closed the connection.");
  JournalLost(cnode, strerrordesc_np(error));
}

namespace {

void PushEnabling(Kind kind, const ConsoleNode* cnode, const Identity* who) {
  if (!IsOn()) return;
  Payload<kFewFields> payload;
  if (who != nullptr) payload.AddIdentity(*who);
  if (who == nullptr) payload.Add(Field::kReason, "The configuration says so.");
  payload.Push(kind, cnode->journal.number);
}

}  // namespace

void JournalDisabled(const ConsoleNode* cnode, const Identity* who) {
  PushEnabling(Kind::kDisabled, cnode, who);
}

void JournalEnabled(const ConsoleNode* cnode, const Identity* who) {
  PushEnabling(Kind::kEnabled, cnode, who);
}

// ---- Users --------------------------------------------------------------------------------------

namespace {

void PushUser(Kind kind, const UserNode* unode, const char* reason) {
  if (!IsOn()) return;
  Payload<kFewFields>()
      .AddIdentity(unode->identity)
      .Add(Field::kMode, ModeKeyword(unode->mode))
      .Add(Field::kReason, reason)
      .Push(kind, unode->cnode->journal.number);
}

// Telnet commands may be cut anywhere; a data byte 255 comes as two (RFC 854).
int CountBreaks(UserNode* unode, std::string_view bytes) REQUIRES(ul_lock) {
  int breaks = 0;
  while (!bytes.empty()) {
    if (!unode->typed_iac) {
      const size_t command = bytes.find(static_cast<char>(telnet::kIac));
      if (command == std::string_view::npos) break;
      unode->typed_iac = true;
      bytes.remove_prefix(command + 1);
      continue;
    }
    if (static_cast<unsigned char>(bytes.front()) == telnet::kBreak) ++breaks;
    unode->typed_iac = false;
    bytes.remove_prefix(1);
  }
  return breaks;
}

}  // namespace

void JournalAttached(const UserNode* unode) {
  PushUser(Kind::kAttached, unode, nullptr);
}

void JournalLeft(const UserNode* unode) {
  PushUser(Kind::kLeft, unode, unode->close_reason);
}

void JournalTyped(UserNode* unode, std::string_view bytes) {
  if (!IsOn()) return;
  const uint32_t console = unode->cnode->journal.number;
  const char* name = NameOf(unode->identity);
  const JournalInput input = journal_input;
  if (input != JournalInput::kNone) {
    Payload<kLongText + kFewFields> payload;
    payload.Add(Field::kUser, name).AddNumber(Field::kBytes, static_cast<int64_t>(bytes.size()));
    if (input == JournalInput::kAll) payload.Add(Field::kText, bytes);
    payload.Push(Kind::kInput, console);
  }
  const int breaks = CountBreaks(unode, bytes);
  if (breaks == 0) return;
  Payload<kFewFields> payload;
  payload.Add(Field::kUser, name);
  if (breaks > 1) payload.AddNumber(Field::kCount, breaks);
  payload.Push(Kind::kBreak, console);
}

void JournalMessage(const ConsoleNode* cnode, const Identity& who, const char* message) {
  if (!IsOn()) return;
  Payload<kLongText + kFewFields>()
      .Add(Field::kUser, NameOf(who))
      .Add(Field::kText, WithoutLineEnd(message))
      .Push(Kind::kMessage, cnode == nullptr ? 0 : cnode->journal.number);
}

// ---- Others -------------------------------------------------------------------------------------

void JournalEvent(uint32_t console, std::string_view pattern, int priority, std::string_view line) {
  if (!IsOn()) return;
  Payload<kLongText + kFewFields>()
      .AddNumber(Field::kPriority, priority)
      .Add(Field::kPattern, pattern)
      .Add(Field::kText, WithoutLineEnd(line).substr(0, kLongText))
      .Push(Kind::kEvent, console);
}

void JournalAudit(const char* what, const char* result, const Identity& who, const char* console,
                  const char* mode, const char* reason) {
  if (!IsOn()) return;
  const auto cut = [](const char* text) {
    return text == nullptr ? std::string_view() : std::string_view(text, strnlen(text, kAuditText));
  };
  const std::string_view line = cut(reason);
  Payload<4 * kAuditText + kFewFields>()
      .Add(Field::kWhat, what)
      .Add(Field::kResult, result)
      .AddIdentity(who)
      .Add(Field::kConsole, cut(console))
      .Add(Field::kMode, mode)
      .Add(Field::kReason, line.substr(0, line.find_first_of("\r\n")))
      .Push(Kind::kAudit, 0);
}

}  // namespace zevd
