#include "models.h"

#include <strings.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "error.h"
#include "paths.h"

namespace zevd {

namespace {

constexpr size_t kLineSize = 8192;
constexpr char kPelloxSeries[] = "PX";

// Splits "series|model" in place. Spaces belong to the two parts. A line that lacks one of them is
// ignored, and so is one for which the table has no room.
void AddModelLine(char* line, ModelList* models) {
  if (line[0] == '#' || line[0] == '\n' || line[0] == '\r') return;
  char* rest = nullptr;
  const char* series = strtok_r(line, "|", &rest);
  if (series == nullptr || models->count == kMaxModels) return;
  char* model = rest;
  model[strcspn(model, "\r\n")] = '\0';
  if (model[0] == '\0') return;
  const ModelList::Entry entry = {strdup(model), strdup(series)};
  if (entry.model == nullptr || entry.series == nullptr) {
    ReportOutOfMemory("LoadModels");
    free(const_cast<char*>(entry.model));
    free(const_cast<char*>(entry.series));
    return;
  }
  models->m[models->count++] = entry;
}

}  // namespace

int LoadModels(ModelList* models) {
  ENTERING();
  FILE* file = fopen(kModelsFile, "re");
  if (file == nullptr) {
    zev_debug(kError, "%s: fopen( %s, ...) failed : %s\n", __func__, kModelsFile, strerror(errno));
    return 1;
  }
  char line[kLineSize];
  while (fgets(line, sizeof line, file) != nullptr) AddModelLine(line, models);
  if (ferror(file) != 0) {
    zev_debug(kError, "%s: fgets( %s, ...) failed : %s\n", __func__, kModelsFile, strerror(errno));
  }
  fclose(file);
  if (models->count == 0) {
    zev_debug(kError, "%s: No models found in %s!!\n", __func__, kModelsFile);
    return 1;
  }
  return 0;
}

int IsPellox(const char* model, const ModelList* models) {
  ENTERING();
  for (int i = 0; i < models->count; ++i) {
    const ModelList::Entry& entry = models->m[i];
    if (strcasecmp(entry.model, model) == 0 && strcasecmp(entry.series, kPelloxSeries) == 0) {
      return 1;
    }
  }
  return 0;
}

}  // namespace zevd
