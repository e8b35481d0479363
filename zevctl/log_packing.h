// Writing compressed logs, in the form that log_compressed.h reads.
#pragma once

#include <sys/types.h>

#include <string>

namespace zevctl {

/// Writes the first `size` bytes of the file `from` to the end of the file `to`, compressed, and
/// returns how many bytes that took. Each frame ends at a line end, where there is one, so that
/// damage costs whole records. Throws Failure(kFailed) when reading or writing fails, or when the
/// file has become shorter.
off_t WriteCompressed(int from, off_t size, int to);

/// True when the compressed log in the file `packed` has the same text as the first `size` bytes of
/// the file `plain`. `name`: of the log, for messages. Throws Failure(kFailed) when one cannot be
/// read.
bool HasSameText(int packed, const std::string& name, int plain, off_t size);

}  // namespace zevctl
