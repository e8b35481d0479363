// Random secrets, and the digests under which they are kept.
#pragma once

#include <string>
#include <string_view>

namespace zevweb {

/// 256 random bits as 64 hexadecimal digits.
std::string RandomSecret();

/// SHA-256 as 64 hexadecimal digits.
std::string Digest(std::string_view bytes);

}  // namespace zevweb
