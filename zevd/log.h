// Console logs, the consolidated log and the dated directories that they live in.
//
// Records are written and logs are closed by the console output monitor with acl_lock held for
// writing. A console's log is opened by the thread that owns the console's list: cons_conn, with
// icl_lock, when it connects; the monitor when logs are rotated. What they share, the directories,
// has a mutex of its own, taken last but for the leaves that posting an event and debug output
// need.
#pragma once

#include <cstddef>

#include "cons_conn.h"

// ---- Logs ---------------------------------------------------------------------------------------

/// Opens the console's log, making the dated directory first where it is missing. 0, or -1. A new
/// log that cannot be given its group or mode ends the process.
int OpenLogFile(ConsoleNode* cnode);

/// The same for the log of everything that nobody watched; a failure never ends the process.
int OpenConsolidatedLogFile();

/// Filters a chunk (at most 1024 bytes) of console output, assembles it into lines and writes every
/// complete one. 0, or -1 when a record could not be written; that record alone is lost.
int WriteLogFile(ConsoleNode* cnode, const char* chars, int count);

/// Writes what is left of an unfinished line, then closes.
void CloseLogFile(ConsoleNode* cnode);
void CloseConsolidatedLogFile();

// ---- The steps of writing; see WriteLogFile() ---------------------------------------------------

/// Writes every complete line of the line buffer and moves the rest to its front. 0 or -1.
int WriteLines(ConsoleNode* cnode);

/// Writes one record: matches it, posts the event, writes the log and the consolidated log. 0 or
/// -1.
int WriteBuffer(ConsoleNode* cnode, const char* buf, int count);

/// Writes the whole line buffer as one record and empties it. 0 or -1.
int FlushBuffer(ConsoleNode* cnode);

/// Index of the first LF or CR at or after `pos` and before `count`, -1 when there is none.
int GetNewlineIndex(const char* buf, int pos, int count);

/// Copies forwards, so that bytes may be moved to the front of their own buffer.
void CopyBytes(char* dst, const char* src, int count);

/// Copies without CR, NUL and telnet commands (255 and the two bytes after it). `count` is the
/// number of bytes in, then out; `outbuf` has room for as many as went in.
void RemoveCRsAndNULLs(const char* inbuf, char* outbuf, int* count);

/// Copies without NUL bytes.
void RemoveNULLs(const char* inbuf, char* outbuf, int* count);

// ---- Directories --------------------------------------------------------------------------------

/// 1 when the current dated directory is at least log_archive_time seconds old, else 0. Console
/// output monitor, or before the threads start.
int LogDirExpired();

/// Points "current" at a new dated directory; all logs are closed. Caller as above.
void ArchiveLogDir();

int ZevDatedDirExists();
int CreateZevDatedDir();

/// 0 when "current" is missing or its target is.
int SymlinkToCurrDirExists();
int CreateSymlinkToCurrDir();
void RemoveSymlinkToCurrDir();

/// Builds the path of a dated directory for the present minute.
void GetNewDirName(char* dirname, size_t size);
