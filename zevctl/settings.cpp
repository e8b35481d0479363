#include "settings.h"

namespace zevctl {

const std::string kStationRoot = QOR_ROOT;

}  // namespace zevctl
