// The description of the interface.
#pragma once

#include <string_view>

namespace zevweb {

/// The text of openapi.json, which is put into the program when it is built.
extern const std::string_view kOpenApiText;

}  // namespace zevweb
