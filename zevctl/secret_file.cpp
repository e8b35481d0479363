#include "secret_file.h"

#include <unistd.h>

#include <algorithm>
#include <array>

#include "owned_file.h"
#include "settings.h"

namespace zevctl {

namespace {

constexpr size_t kLongestLine = 4096;  // of what is read; a password is far shorter

bool IsOfTheDaemon(uid_t owner) {
  struct stat directory {};
  return stat((kStationRoot + "/config").c_str(), &directory) == 0 && directory.st_uid == owner;
}

// Root's other files must not get into lines.yaml, which the daemon's user reads.
bool IsMeantAsSecret(const std::string& directory, const std::string& path) {
  return directory == kStationRoot + "/config" || path.ends_with(".secret");
}

std::string FileMistake(const SafeFile& file, const std::string& directory,
                        const std::string& path) {
  const std::string what = "the secret's file \"" + path + "\" ";
  if (file.error != 0) return what + "cannot be read; make it readable for you";
  if (!file.reason.empty()) {
    return what + "cannot be used: " + file.reason + "; put the password into a file of its own";
  }
  if ((file.info.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    return what + "is open to others than its owner; chmod 0600 " + path;
  }
  const uid_t owner = file.info.st_uid;
  if (owner != 0 && owner != geteuid() && !IsOfTheDaemon(owner)) {
    return what + "belongs to user " + std::to_string(owner) +
           "; give it to root, or to the owner of " + kStationRoot + "/config";
  }
  if (owner == 0 && !IsMeantAsSecret(directory, path)) {
    return what + "is root's and may be meant for something else; give it a name that ends in " +
           ".secret, or move it to " + kStationRoot + "/config";
  }
  return "";
}

}  // namespace

SecretLine ReadSecretLine(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash);
  const SafeFile file = OpenSafely(directory.empty() ? "/" : directory, path.substr(slash + 1));
  SecretLine line;
  line.mistake = FileMistake(file, directory, path);
  if (!line.mistake.empty()) return line;
  std::array<char, kLongestLine> bytes{};
  const ssize_t length = read(file.opened.get(), bytes.data(), bytes.size());
  if (length < 0) {
    line.mistake = "the secret's file \"" + path + "\" cannot be read; make it readable for you";
    return line;
  }
  line.text.assign(bytes.data(), static_cast<size_t>(length));
  line.text.erase(std::min(line.text.find('\n'), line.text.size()));
  return line;
}

}  // namespace zevctl
