#include "event.h"

#include <jix.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "counters.h"
#include "error.h"
#include "mutex.h"
#include "signal_hold.h"

namespace zevd {

namespace {

constexpr size_t kTextSize = 8192;

/// Whoever holds it takes only the debug lock, and keeps SIGTERM away: the event library may hold
/// the C library's time-zone lock, which the handler needs for its debug line.
Mutex connection_mutex;
JixConn* connection GUARDED_BY(connection_mutex) = nullptr;
JixStatus last_attempt GUARDED_BY(connection_mutex) = JixERROR_NONE;

void ReportStatus(const char* function, const char* call, JixStatus status) {
  char text[kTextSize];
  JixStatusTextGet(status, text, sizeof text);
  DEBUG_AS(function, kError, "%s failed : %s\n", call, text);
}

void ReportAttempt(JixStatus status) REQUIRES(connection_mutex) {
  constexpr char kFunction[] = "ConnectToJix";
  if (status != JixERROR_NONE) {
    if (status == last_attempt) return;
    ReportStatus(kFunction, "JixConnCreate()", status);
    DEBUG_AS(kFunction, kError, "Continuing without JIX support.\n");
  } else if (last_attempt != JixERROR_NONE) {
    DEBUG_AS(kFunction, kError, "Re-established connection with JIX daemon.\n");
  } else {
    DEBUG_AS(kFunction, kInfo, "Established connection with JIX daemon.\n");
  }
}

int Connect() REQUIRES(connection_mutex) {
  ENTERING_AS("ConnectToJix");
  if (connection != nullptr) return 0;
  const JixConnOptions defaults{};
  const JixStatus status = JixConnCreate(&defaults, &connection);
  ReportAttempt(status);
  last_attempt = status;
  return status == JixERROR_NONE ? 0 : -1;
}

void DropConnection() REQUIRES(connection_mutex) {
  JixConnDestroy(connection);
  connection = nullptr;
}

/// An event while it is built; destroyed on every way out.
struct EventHolder {
  JixEvent* event = nullptr;
  EventHolder() = default;
  ~EventHolder() { JixEventDestroy(event); }
  EventHolder(const EventHolder&) = delete;
  EventHolder& operator=(const EventHolder&) = delete;
};

bool Succeeded(JixStatus status, const char* call) {
  if (status != JixERROR_NONE) ReportStatus("PostJixEvent", call, status);
  return status == JixERROR_NONE;
}

bool SetVariable(JixEvent* event, const char* name, const char* value) {
  return name == nullptr || Succeeded(JixVarSet(event, name, JixTYPE_STRING, value), "JixVarSet()");
}

JixStatus PostWithOneRetry(const JixEvent* event) REQUIRES(connection_mutex) {
  const JixStatus status = JixEventPost(connection, event);
  if (status != JixERROR_CONNECTION_LOST) return status;
  DropConnection();
  return Connect() == 0 ? JixEventPost(connection, event) : status;
}

void Post(const JixEvent* event) REQUIRES(connection_mutex) {
  const JixStatus status = PostWithOneRetry(event);
  if (Succeeded(status, "JixEventPost()")) {
    counters.events_posted.Add();
    return;
  }
  counters.events_dropped.Add();
  if (status == JixERROR_CONNECTION_LOST && connection != nullptr) DropConnection();
}

}  // namespace

int ConnectToJix() {
  const TermSignalHold hold;
  const MutexLock lock(connection_mutex);
  return Connect();
}

void PostJixEvent(const char* event_template, const char* varName, char* varValue,
                  const char* varMessage, const char* message, int priority) {
  ENTERING();
  const auto or_none = [](const char* text) { return text == nullptr ? "-" : text; };
  zev_debug(kDetail, "%s: template=%s %s=%s %s=%s priority=%d\n", __func__, event_template,
            or_none(varName), or_none(varValue), or_none(varMessage), or_none(message), priority);

  const TermSignalHold hold;
  const MutexLock lock(connection_mutex);
  if (connection == nullptr && Connect() != 0) {
    counters.events_dropped.Add();
    return;
  }
  char name[kTextSize];
  if (varName != nullptr) {
    std::replace(varValue, varValue + strlen(varValue), '-', '_');
    snprintf(name, sizeof name, "%s.%s", event_template, varValue);
  } else {
    snprintf(name, sizeof name, "%s", event_template);
  }
  EventHolder holder;
  if (Succeeded(JixEventCreateVa(&holder.event, JixITEM_NAME, name, JixITEM_END),
                "JixEventCreateVa()") &&
      Succeeded(JixItemSetVa(holder.event, JixITEM_PRIORITY, priority, JixITEM_END),
                "JixItemSet()") &&
      SetVariable(holder.event, varName, varValue) &&
      SetVariable(holder.event, varMessage, message)) {
    Post(holder.event);
  } else {
    counters.events_dropped.Add();
  }
}

void PostDaemonErrorsToJix() {
  SetEventPoster([](const char* text, int priority) {
    char value[kTextSize];
    snprintf(value, sizeof value, "%s", text);
    PostJixEvent("qor.zevd.daemon.error", "message", value, nullptr, nullptr, priority);
  });
}

}  // namespace zevd
