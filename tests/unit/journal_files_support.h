// Journals that tests put together from segments, and what a reader finds in them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "file_support.h"
#include "journal/journal.h"
#include "journal_support.h"

namespace test {

/// A journal's directory, removed at the end.
class JournalFiles {
 public:
  JournalFiles();

  /// Writes the segment's file as it is now.
  void Put(const SegmentBytes& segment) const;

  /// Puts an index beside a segment, or a compressed segment in its place, as the keeper does.
  void Seal(uint64_t segment) const;
  void Compress(uint64_t segment) const;
  void Remove(uint64_t segment) const;

  std::filesystem::path Raw(uint64_t segment) const { return File(segment, ".seg"); }
  std::filesystem::path Compressed(uint64_t segment) const { return File(segment, ".seg.zst"); }
  std::filesystem::path Index(uint64_t segment) const { return File(segment, ".idx"); }
  std::string path() const { return directory_.path(); }

 private:
  std::filesystem::path File(uint64_t segment, const char* suffix) const;

  TemporaryDirectory directory_;
};

/// Gives a file other contents in place. A file that is emptied first goes to the disk when it is
/// closed, which takes more time than all else in a test.
void Overwrite(const std::filesystem::path& path, std::string_view content);

/// A segment of another run of the daemon.
SegmentBytes SegmentOfRun(uint64_t run, uint64_t segment, uint64_t first_record);

/// Writes the header anew, after one of its fields has been changed.
void EncodeHeaderOf(SegmentBytes& segment);

using Strings = std::vector<std::string>;

/// The payloads of what is still to come.
Strings ReadRest(journal::Cursor& cursor);

/// The payloads of the output that a query finds.
Strings ReadOutput(const journal::Journal& journal, journal::Query query = {});

/// "SEGMENT:OFFSET+BYTES REASON" for each.
Strings Damages(const journal::Cursor& cursor);

journal::Position At(uint64_t segment, uint64_t offset);

}  // namespace test
