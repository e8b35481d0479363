#include "timestamp.h"

#include <ctime>

size_t GetTimeStamp(char* time_str, size_t size) {
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  return strftime(time_str, size, "%y/%m/%d_%T", &local);
}
