#include "suite_config.h"

#include <cstdlib>
#include <cstring>

namespace zevd {

SuiteConfigLines::~SuiteConfigLines() {
  free(line_);
}

bool SuiteConfigLines::Next() {
  length_ = getline(&line_, &room_, file_);
  return length_ >= 0;
}

const char* SuiteConfigLines::ValueOf(const char* key) const {
  const size_t length = strlen(key);
  return strncmp(line_, key, length) == 0 ? line_ + length : nullptr;
}

void SuiteConfigLines::CopyTo(FILE* out) const {
  fwrite(line_, 1, static_cast<size_t>(length_), out);
}

}  // namespace zevd
