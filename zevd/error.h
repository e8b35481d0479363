// Debug output, thread names and the two ways in which the process may end on purpose.
//
// Any thread may call what does not say otherwise. All output is serialised by debug_lock, which is
// taken last: whoever holds it takes no other lock.
#pragma once

namespace zevd {

/// Levels of zev_debug(). A message is written when its level is not above `debug_level`.
enum DebugLevel : int {
  kError = -1,  ///< always written, unless debug_level is below -1
  kInfo = 1,    ///< significant events, the exit trace, hung locks
  kDetail = 2,  ///< detail
  kTrace = 3,   ///< function entries and every lock operation
};

/// Writes "ZEV <time>:<<thread>>: <message>" to standard output. A message equal to the one before
/// it is only counted; the count is written when a different one arrives. Messages are cut at 8191
/// bytes and carry their own newline. Output that nobody takes is dropped after 100 ms; the first
/// line that is taken again says how much was lost (bounded_output.h). Leaves errno alone.
void zev_debug(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// First statement of a function: writes its entry line at level 3.
#define ENTERING() ENTERING_AS(__func__)

// A message begins with the name of a function, by which operators and their filters know the step.
// Where the code of a step is several functions, the parts write their messages under the name of
// the whole, with these two macros.

#define DEBUG_AS(function, level, format, ...) \
  ::zevd::zev_debug((level), "%s: " format, (function)__VA_OPT__(, ) __VA_ARGS__)
#define ENTERING_AS(function) ::zevd::zev_debug(::zevd::kTrace, "Entering %s\n", (function))

/// Takes the first free slot for the calling thread. With every slot taken the thread stays
/// unregistered and its lines say "unknown". A thread that registers twice keeps showing the first
/// name.
void RegisterThread(const char* name);

/// Gives back the calling thread's slot; does nothing when it has none.
void UnregisterThread();

/// Frees all slots. Only before there is a second thread.
void ClearThreadNames();

// ---- Our own failures: the process ends. What peers send and files hold never comes here. -------

/// Writes the exit trace and ends the process. Safe from any thread and from the SIGTERM handler; a
/// thread that comes second waits up to a second for the first to end the process.
[[noreturn]] void ExitProcess(int code, const char* file, int line);

/// Posts the event "qor.zevd.daemon.error.<text>" with the variable "message" = `text`. The
/// function that does so is handed in with SetEventPoster(), because what posts events stands above
/// this file; until then nothing is posted.
void PostDaemonError(const char* text, int priority);
using EventPoster = void (*)(const char* text, int priority);
void SetEventPoster(EventPoster poster);
inline constexpr int kErrorPriority = 700;

/// What is done before the process ends, whoever ends it: it must be safe from any thread and from
/// the SIGTERM handler, and last for less than a second. Handed in by what stands above this file.
using EndStep = void (*)();
void SetEndStep(EndStep step);

/// Posts the daemon error event with `text`, then ExitProcess(1, ...).
[[noreturn]] void TerminateProcess(const char* text, const char* file, int line);

#define EXIT_PROCESS(code) ::zevd::ExitProcess((code), __FILE_NAME__, __LINE__)
#define TERMINATE(text) ::zevd::TerminateProcess((text), __FILE_NAME__, __LINE__)

/// Writes a message at level -1 and ends the process, for a mistake of the daemon's own.
#define INTERNAL_ERROR(...)                         \
  do {                                              \
    ::zevd::zev_debug(::zevd::kError, __VA_ARGS__); \
    TERMINATE(::zevd::kInternalError);              \
  } while (false)

inline constexpr char kTerminated[] = "Terminated.............";
inline constexpr char kInternalError[] = "Terminated: Internal error";

// ---- Failures that cost one request -------------------------------------------------------------

/// Reports an allocation that failed in `function`: the debug line and the "Out of memory" event.
void ReportOutOfMemory(const char* function);

}  // namespace zevd
