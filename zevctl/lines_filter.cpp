// Whether the table of packaging/nftables/zevd-lines.nft is there.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>

#include "descriptor.h"
#include "lines.h"

namespace zevctl {

namespace {

constexpr char kNft[] = "/usr/sbin/nft";

struct Answer {
  bool ran = false;
  int status = -1;
  std::string output;  // standard error, too
};

std::string ReadAll(int descriptor) {
  std::string text;
  std::array<char, 4096> piece;
  for (;;) {
    const ssize_t count = read(descriptor, piece.data(), piece.size());
    if (count > 0) text.append(piece.data(), static_cast<size_t>(count));
    if (count == 0 || (count < 0 && errno != EINTR)) return text;
  }
}

pid_t Spawn(int output) {
  const char* arguments[] = {kNft, "list", "table", "inet", "zevd_lines", nullptr};
  const char* environment[] = {"LC_ALL=C", nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output, STDERR_FILENO);
  pid_t pid = -1;
  if (posix_spawn(&pid, kNft, &actions, nullptr, const_cast<char* const*>(arguments),
                  const_cast<char* const*>(environment)) != 0) {
    pid = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

Answer AskNft() {
  Answer answer;
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return answer;
  const Descriptor ours(ends[0]);
  Descriptor theirs(ends[1]);
  const pid_t pid = Spawn(theirs.get());
  theirs.Close();
  if (pid < 0) return answer;
  answer.output = ReadAll(ours.get());
  while (waitpid(pid, &answer.status, 0) < 0 && errno == EINTR) {
  }
  answer.ran = true;
  return answer;
}

}  // namespace

FilterState LinesFilter() {
  const Answer answer = AskNft();
  if (!answer.ran) return FilterState::kUnknown;
  if (answer.status != 0) {
    // To those who may not ask, nft says nothing of tables.
    return answer.output.find("No such file or directory") != std::string::npos
               ? FilterState::kMissing
               : FilterState::kUnknown;
  }
  // A table without its rules keeps nobody away.
  for (const char* part : {"hook output", kLinesAddress, "skuid", "reject"}) {
    if (answer.output.find(part) == std::string::npos) return FilterState::kMissing;
  }
  return FilterState::kThere;
}

}  // namespace zevctl
