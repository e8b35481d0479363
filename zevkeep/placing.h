// Putting files into the journal's directory so that a name stands for a whole file at any moment,
// whatever happens to the machine.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "chain.h"
#include "segment_store.h"

namespace zevkeep {

/// Writes a file under a temporary name, and gives it its name once it is on the disk. Its group is
/// the directory's. Throws
/// std::system_error, and what `write` throws; then there is nothing new.
void Place(const journal::SegmentStore& store, const std::string& name,
           const std::function<void(int fd)>& write);

/// A file of these bytes.
void PlaceBytes(const journal::SegmentStore& store, const std::string& name,
                std::string_view bytes);

/// Replaces the file "chain"; on a full disk its bytes are written over the old ones.
void PlaceChain(const journal::SegmentStore& store, const journal::Chain& chain);

/// Removes a file, and a missing one is no error. Throws std::system_error.
void Remove(const journal::SegmentStore& store, const std::string& name);

/// Removes the files of a segment; its index is the last one to go, whatever happens to the
/// machine. Throws std::system_error.
void RemoveFiles(const journal::SegmentStore& store, uint64_t segment);

/// What has been renamed or removed is so on the disk. Throws std::system_error.
void Settle(const journal::SegmentStore& store);

/// Removes what a pass that was ended has left under the temporary name.
void RemoveTemporary(const journal::SegmentStore& store);

}  // namespace zevkeep
