// The steps of writing a log (WriteLogFile()), for the file itself and for its tests.
#pragma once

#include "console.h"

namespace zevd {

class RecordBatch;

/// Writes every complete line of the line buffer and moves the rest to its front. 0 or -1.
int WriteLines(ConsoleNode* cnode, RecordBatch* batch = nullptr);

/// Matches one record, posts the event, and writes the record into the log and the consolidated log
/// or adds it to the batch. 0 or -1.
int WriteBuffer(ConsoleNode* cnode, const char* buf, int count, RecordBatch* batch = nullptr);

/// Writes the whole line buffer as one record and empties it. 0 or -1.
int FlushBuffer(ConsoleNode* cnode, RecordBatch* batch = nullptr);

/// Index of the first LF or CR at or after `pos` and before `count`, -1 when there is none.
int GetNewlineIndex(const char* buf, int pos, int count);

/// Copies forwards, so that bytes may be moved to the front of their own buffer.
void CopyBytes(char* dst, const char* src, int count);

/// Copies without CR, NUL and telnet commands (255 and the two bytes after it). `count` is the
/// number of bytes in, then out; `outbuf` has room for as many as went in.
void RemoveCRsAndNULLs(const char* inbuf, char* outbuf, int* count);

/// Copies without NUL bytes.
void RemoveNULLs(const char* inbuf, char* outbuf, int* count);

}  // namespace zevd
