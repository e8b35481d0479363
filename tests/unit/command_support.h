// Tools at the command port, and the answers that they get.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "answer.h"
#include "debug_support.h"
#include "relay_support.h"

namespace test {

using namespace zevd;

// ---- Answers as bytes ---------------------------------------------------------------------------

/// What a tool received.
struct Answer {
  uint32_t type = 0;
  uint32_t count = 0;
  std::string body;
};

uint32_t LittleEndian(const std::string& bytes, size_t offset, size_t width);

/// A field of a record: the text as a client reads it.
std::string FieldText(const std::string& body, size_t offset, size_t width);

/// A text field as it is sent.
std::string Padded(const std::string& text, size_t width);

std::string Bytes16(unsigned value);

// ---- Fixtures -----------------------------------------------------------------------------------

inline constexpr char kOperator[] = "op";
inline constexpr char kOperatorAddress[] = "192.0.2.7";
inline constexpr char kNoMemoryLine[] = "malloc() failed : Cannot allocate memory\n";

/// The test plays the monitor's part. There is one managed model, "M100".
class CommandTest : public RelayTest {
 protected:
  CommandTest();
  ~CommandTest() override;

  /// A tool whose connection is on cmd_list.
  static Attached<CommandNode> Connect(const char* name = kOperator, int small_buffer = 0);

  /// What the monitor does when a command has arrived.
  static void Pass();

  static Answer Received(const Attached<CommandNode>& tool);

  /// The answer to one line.
  static Answer Ask(const Attached<CommandNode>& tool, const std::string& line);

  /// The text of the error with which the last command was answered.
  static std::string Error();

  /// Runs a command as the operator; sends nothing.
  static CommandId Execute(std::string line);

  /// What a command writes at level 1.
  static std::vector<std::string> SaidBy(std::string line);

  /// A console of the managed model that is held by a client elsewhere.
  static ConsoleNode* AddHeld(const char* name);
};

/// Two connected consoles, "BOX" and "box", each with a user of its name.
class TwinTest : public CommandTest {
 protected:
  TwinTest();

  Attached<ConsoleNode> upper_ = ConnectConsole("BOX");
  Attached<ConsoleNode> lower_ = ConnectConsole("box");
  Attached<UserNode> upper_user_ = AttachUser(upper_.node, "BOX");
  Attached<UserNode> lower_user_ = AttachUser(lower_.node, "box");
  Attached<CommandNode> tool_ = Connect();
};

// ---- Locks --------------------------------------------------------------------------------------

/// What the trace says about the console list locks and memory, in order: "+acl" where a lock is
/// requested, "-acl" where it is released, "malloc" where memory has run out and "error" where the
/// error of the answer is reported.
std::vector<std::string> LockSteps(const DebugCapture& debug);

/// True when another thread could take the lock for writing.
bool IsFree(RwLock& lock);

/// True when another thread could take the lock for reading only.
bool IsReadHeld(RwLock& lock);

}  // namespace test
