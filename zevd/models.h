// Which console models belong to the Pellox family. Filled by the main thread before there is
// another, then only read.
#pragma once

namespace zevd {

inline constexpr int kMaxModels = 20;

struct ModelList {
  struct Entry {
    const char* model;   ///< heap copy
    const char* series;  ///< heap copy
  };
  Entry m[kMaxModels];
  int count;  ///< entries loaded
};

/// Reads the models file; entries beyond the twentieth are ignored. 0 when at least one model was
/// loaded, else 1, which is reported.
int LoadModels(ModelList* models);

/// 1 when the table gives `model` the Pellox series, both compared without regard to case.
int IsPellox(const char* model, const ModelList* models);

}  // namespace zevd
