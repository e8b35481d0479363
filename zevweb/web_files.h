// The page's files, in memory.
#pragma once

#include <map>
#include <string>

#include "exchange.h"

namespace zevweb {

struct WebFile {
  std::string type;
  std::string tag;  ///< of these bytes, in quotes
  std::string bytes;
  std::string packed;  ///< the same by gzip; empty when that is not smaller
};

class WebFiles {
 public:
  /// Reads the files of the directory whose types are known, and no others.
  explicit WebFiles(const std::string& directory);

  bool empty() const { return files_.empty(); }

  /// The file that the path names; null when there is none.
  const WebFile* Find(const std::string& path) const;

 private:
  std::map<std::string, WebFile> files_;
};

}  // namespace zevweb
