#include "timestamp.h"

#include <cstring>
#include <ctime>

#include "signal_hold.h"

namespace zevd {

namespace {

size_t Format(time_t when, char* text, size_t size, const char* format) {
  // localtime_r() takes a lock of the C library's, which the handler needs too.
  const TermSignalHold hold;
  tm local{};
  localtime_r(&when, &local);
  return strftime(text, size, format, &local);
}

/// The calling thread's latest stamp.
struct StampCache {
  time_t when = -1;
  size_t length = 0;
  char text[32] = "";
};

thread_local StampCache cache;

}  // namespace

size_t FormatLocalTime(char* text, size_t size, const char* format) {
  return Format(time(nullptr), text, size, format);
}

size_t GetTimeStamp(char* time_str, size_t size) {
  const time_t now = time(nullptr);
  if (now != cache.when) {
    const TermSignalHold hold;  // the handler uses the cache too
    cache.length = Format(now, cache.text, sizeof cache.text, "%y/%m/%d_%T");
    cache.when = now;
  }
  if (cache.length >= size) return 0;
  memcpy(time_str, cache.text, cache.length + 1);
  return cache.length;
}

}  // namespace zevd
