#include "lines.h"

#include <array>
#include <sstream>
#include <stdexcept>

#include "line_words.h"
#include "secret_file.h"

namespace zevctl {

namespace {

constexpr size_t kLongestIpmiPassword = 20;
constexpr char kSshDirectory[] = "/var/lib/zevd-lines/.ssh";

// ---- The password of an ipmi line ---------------------------------------------------------------

// A comma would end the password for gensio, and nothing quotes one there.
SecretLine ReadPassword(const std::string& path) {
  SecretLine password;
  if (path.empty()) {
    password.mistake = "an ipmi line needs a password; name the file that holds it (secret_file)";
    return password;
  }
  password = ReadSecretLine(path);
  if (!password.mistake.empty()) return password;
  if (password.text.empty()) {
    password.mistake = "the secret's file \"" + path + "\" has no password in its first line";
  } else if (password.text.size() > kLongestIpmiPassword) {
    password.mistake = "the password in \"" + path + "\" is longer than the 20 bytes of IPMI";
  } else if (password.text.find(',') != std::string::npos || !IsPlainText(password.text)) {
    password.mistake = "the password in \"" + path +
                       "\" has a comma or a control character; the line server takes neither";
  }
  return password;
}

// ---- What is wrong ------------------------------------------------------------------------------

std::string SerialMistake(const Line& line) {
  if (IsSerialTarget(line.target)) return "";
  return "\"" + line.target +
         "\" is no serial port; write /dev/NAME,SPEED as in \"/dev/ttyUSB0,115200n8\", and behind "
         "further commas xonxoff, rtscts, local=false, nobreak, dtr=off or rts=off";
}

std::string ExecMistake(const Line& line) {
  const auto words = SplitCommand(line.target);
  if (!words) return "a quotation in the command has no end; close it";
  if (words->empty() || words->front().empty()) return "the command is empty; name a program";
  // gensio would start a login shell, under the name without the hyphen.
  if (words->front().front() == '-')
    return "a program's name cannot begin with \"-\"; use its path";
  return "";
}

std::string SshMistake(const Line& line) {
  if (IsSshTarget(line.target)) return "";
  return "\"" + line.target +
         "\" is no destination of ssh; write USER@HOST or ssh://USER@HOST:PORT";
}

std::string IpmiMistake(const Line& line) {
  if (!ReadIpmiTarget(line.target)) {
    return "\"" + line.target +
           "\" is no management controller; write USER@HOST, and if need be :PORT and ,SPEED";
  }
  return ReadPassword(line.secret_file).mistake;
}

// ---- What gensio connects a line to -------------------------------------------------------------

// Most cables carry no modem control lines, and without "local" gensio waits for them.
std::string SerialConnector(const Line& line) {
  const size_t comma = line.target.find(',');
  if (comma == std::string::npos) return "serialdev," + line.target + ",local";
  return "serialdev," + line.target.substr(0, comma) + ",local" + line.target.substr(comma);
}

// The size of the buffer is the port's number, as ser2net takes lines with the same connector for
// one device, which only one of them may have; and no other line has this port.
std::string PtyConnector(const Line& line, const std::vector<std::string>& words) {
  std::string connector = "pty(readbuf=" + std::to_string(line.port) + "),";
  for (const std::string& word : words) {
    if (&word != &words.front()) connector += ' ';
    connector += QuotedWord(word);
  }
  return connector;
}

std::string ExecConnector(const Line& line) {
  return PtyConnector(line, SplitCommand(line.target).value());
}

// Nobody is there to answer a question (BatchMode) or to use ssh's own escapes (-e). A peer that
// has vanished is noticed after a minute and a half.
std::string SshConnector(const Line& line) {
  const std::string directory = kSshDirectory;
  return PtyConnector(
      line, {"ssh", "-tt", "-e", "none", "-o", "BatchMode=yes", "-o", "ServerAliveInterval=30",
             "-o", "UserKnownHostsFile=" + directory + "/known_hosts", "-o",
             "IdentityFile=" + directory + "/id_ed25519", "--", line.target});
}

std::string IpmiConnector(const Line& line) {
  const IpmiTarget target = ReadIpmiTarget(line.target).value();
  const SecretLine password = ReadPassword(line.secret_file);
  if (!password.mistake.empty()) throw std::runtime_error(password.mistake);
  std::string connector = "ipmisol,lan";
  if (!target.user.empty()) connector += " -U " + QuotedWord(target.user);
  return connector + " -P " + QuotedWord(password.text) + " -p " + std::to_string(target.port) +
         ' ' + target.host + ',' + target.speed;
}

// ---- The kinds ----------------------------------------------------------------------------------

struct Kind {
  LineKind kind;
  std::string (*mistake)(const Line& line);
  std::string (*connector)(const Line& line);
};

constexpr std::array<Kind, 4> kKinds{
    Kind{LineKind::kSerial, SerialMistake, SerialConnector},
    Kind{LineKind::kExec, ExecMistake, ExecConnector},
    Kind{LineKind::kSsh, SshMistake, SshConnector},
    Kind{LineKind::kIpmi, IpmiMistake, IpmiConnector},
};

const Kind& KindOf(const Line& line) {
  return kKinds.at(static_cast<size_t>(line.kind));
}

// The name by which the line server's messages call a line. YAML takes few characters in it, and
// the port keeps two apart that have become the same.
std::string Anchor(const Line& line) {
  std::string anchor;
  for (const char byte : line.name) {
    const bool letter = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z');
    anchor += letter || (byte >= '0' && byte <= '9') || byte == '-' ? byte : '_';
  }
  return anchor + '_' + std::to_string(line.port);
}

// Telnet, not the bare connection: a break must be told from text, a byte 255 from a command, and
// the answers that a user's telnet client gives to the daemon's offers must not be typed at the
// console. The line server asks for binary mode, in which Enter is a carriage return alone; outside
// of it what follows the carriage return would arrive, too. Without RFC 2217: the speed is this
// file's business, not that of somebody at the console.
std::string Connection(const Line& line) {
  const std::string accepter = std::string("telnet(rfc2217=false),tcp(nodelay),") + kLinesAddress +
                               ',' + std::to_string(line.port);
  return "connection: &" + Anchor(line) + "\n  accepter: " + QuotedScalar(accepter) +
         "\n  connector: " + QuotedScalar(KindOf(line).connector(line)) +
         "\n  options:\n    max-connections: 1\n    mdns: false\n";
}

}  // namespace

std::string LinesYaml(const std::vector<Line>& lines) {
  std::string yaml = "%YAML 1.1\n# Written by \"zevctl config apply\", and written over.\n---\n";
  for (const Line& line : lines) yaml += Connection(line);
  return yaml;
}

LineBlocks BlocksOf(const std::string& yaml) {
  LineBlocks blocks;
  std::string* block = nullptr;
  std::istringstream lines(yaml);
  for (std::string line; std::getline(lines, line);) {
    // A connection begins with its name, which ends with its port. No other line begins so.
    if (line.starts_with("connection: &")) block = &blocks[line.substr(line.rfind('_') + 1)];
    if (block != nullptr) *block += line + "\n";
  }
  return blocks;
}

std::string LineMistake(const Line& line) {
  if (!IsPlainText(line.target)) {
    return "the target has a control character or is not UTF-8; write it as plain text";
  }
  return KindOf(line).mistake(line);
}

}  // namespace zevctl
