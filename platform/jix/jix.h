/* Client interface of the station's event manager.
 *
 * An event has a name, a priority and string variables; it is posted on a connection. Every
 * function may be called from any thread; one connection carries one post at a time. No call takes
 * longer than a fraction of a second, whatever the event manager does, and the posts on a
 * connection spend at most a tenth of the time waiting for it, however slowly it reads. */
#ifndef JIX_H
#define JIX_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int JixStatus;

enum {
  JixERROR_NONE = 0,
  JixERROR_NO_MEMORY = 1,
  JixERROR_INVALID = 2,         /* an item, type or handle that the library does not know */
  JixERROR_CANNOT_CONNECT = 3,  /* nobody listens at the event manager's address */
  JixERROR_BUSY = 4,            /* the event manager does not read; the event is dropped */
  JixERROR_CONNECTION_LOST = 20 /* the connection is of no more use */
};

enum { JixITEM_END = 0, JixITEM_NAME = 1, JixITEM_PRIORITY = 5 };
enum { JixTYPE_STRING = 12 };

typedef struct JixConn JixConn;
typedef struct JixEvent JixEvent;

/* All zero is the default for every option. */
typedef struct JixConnOptions {
  const char* address; /* path of the event manager's stream socket; null: the station's own */
} JixConnOptions;

/* Opens a connection; *conn is the caller's, to be given to JixConnDestroy, and null on failure. */
JixStatus JixConnCreate(const JixConnOptions* options, JixConn** conn);
void JixConnDestroy(JixConn* conn);

/* Item code and value pairs, ended by JixITEM_END: JixITEM_NAME takes a const char*. *event is the
 * caller's, to be given to JixEventDestroy (null is allowed there). */
JixStatus JixEventCreateVa(JixEvent** event, ...);

/* As above: JixITEM_PRIORITY takes an int, JixITEM_NAME a const char*. */
JixStatus JixItemSetVa(JixEvent* event, ...);

/* Adds a variable. The only type is JixTYPE_STRING; `value` is copied. */
JixStatus JixVarSet(JixEvent* event, const char* name, int type, const char* value);

/* Sends the event. On JixERROR_CONNECTION_LOST the connection can only be destroyed. When the event
 * manager stops reading in the middle of a very long event, the rest goes out before the next one.
 *
 * Equal events whose names begin with "qor.zevd.daemon.error" are counted: the first goes out at
 * once, and then at most one in a second, with the number of those that it stands for. What is left
 * over goes out with the first post of any event after that second. Up to 16 different events are
 * counted at a time; any others all go out. */
JixStatus JixEventPost(JixConn* conn, const JixEvent* event);
void JixEventDestroy(JixEvent* event);

/* Writes the text of a status, cut to `size`, terminator included. */
void JixStatusTextGet(JixStatus status, char* text, size_t size);

#ifdef __cplusplus
}
#endif

#endif
