/* Loaded into the daemon before its libraries: counts the calls of one kind that it makes and lets
   one of them fail, as a file mapped by the test and the daemon says. It also gives the daemon a
   clock that the test can set forward.

   A call is one that the daemon or its libraries make; what the C library does inside one of its
   own functions is part of that call. Memory is the exception: whatever asks for it is counted. */
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <regex.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

enum { NAME_SIZE = 32, ANY_THREAD = -1, WORKERS = 4, LATER_THREAD = WORKERS + 1 };

/* The order and the sizes are known to failing_calls.py too. */
struct control {
  _Atomic int64_t armed;   /* 0: nothing is counted */
  _Atomic int64_t nth;     /* the call that fails, counted from 1; 0: none does */
  _Atomic int64_t error;   /* its errno */
  _Atomic int64_t thread;  /* whose calls: 0 the main thread's, 1 to 4 the workers', 5 the others' */
  _Atomic int64_t seen;    /* calls counted so far */
  _Atomic int64_t fired;   /* 1 once one has failed */
  _Atomic int64_t ahead;   /* seconds by which the daemon's clock is ahead */
  _Atomic int64_t lasting; /* 1: the calls after it fail, too */
  char name[NAME_SIZE];    /* the kind of call; changed only while nothing is armed */
};

static struct control idle;
static struct control *control = &idle;

/* Inside a call that is counted already: what it calls in turn is not. */
static __thread int depth __attribute__((tls_model("initial-exec")));
static __thread int64_t own_number __attribute__((tls_model("initial-exec"))) = LATER_THREAD;

__attribute__((constructor)) static void map_control(void) {
  own_number = 0;
  const char *path = getenv("FAILING_CALLS");
  /* Whatever starts the daemon has the library loaded too. */
  if (path == NULL || strcmp(program_invocation_short_name, "zevd") != 0) return;
  const int fd = open(path, O_RDWR | O_CLOEXEC);
  void *mapped = mmap(NULL, sizeof *control, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (mapped == MAP_FAILED) abort();
  close(fd);
  control = mapped;
}

static int fails(const char *name) {
  if (depth != 0 || atomic_load(&control->armed) == 0) return 0;
  if (strcmp(control->name, name) != 0) return 0;
  const int64_t thread = atomic_load(&control->thread);
  if (thread != ANY_THREAD && thread != own_number) return 0;
  const int64_t number = atomic_fetch_add(&control->seen, 1) + 1;
  const int64_t nth = atomic_load(&control->nth);
  const int comes_later = nth != 0 && number > nth && atomic_load(&control->lasting) != 0;
  if (number != nth && !comes_later) return 0;
  atomic_store(&control->fired, 1);
  errno = (int)atomic_load(&control->error);
  return 1;
}

static void *find_next(const char *name) {
  void *found = dlsym(RTLD_NEXT, name);
  if (found == NULL) abort();
  return found;
}

#define NEXT_AS(name, symbol)                                               \
  ({                                                                        \
    static _Atomic(void *) next;                                            \
    if (atomic_load(&next) == NULL) atomic_store(&next, find_next(symbol)); \
    (__typeof__(&name))atomic_load(&next);                                  \
  })
#define NEXT(name) NEXT_AS(name, #name)

/* A call that fails does nothing. */
#define FAILING(result, name, parameters, arguments, failure) \
  result name parameters {                                    \
    if (fails(#name)) return failure;                         \
    return NEXT(name) arguments;                              \
  }

/* A call that fails does its work: a descriptor is closed whatever close() returns. It is counted
   before, for those who see the work done and look at the count. */
#define FAILING_AFTERWARDS(result, name, parameters, arguments, failure) \
  result name parameters {                                               \
    const int failing = fails(#name);                                    \
    const int error = errno;                                             \
    const result done = NEXT(name) arguments;                            \
    if (!failing) return done;                                           \
    errno = error;                                                       \
    return failure;                                                      \
  }

/* ---- Memory ---------------------------------------------------------------------------------- */

#define ALLOCATING(name, parameters, arguments) \
  void *name parameters {                       \
    if (fails("allocation")) return NULL;       \
    ++depth;                                    \
    void *made = NEXT(name) arguments;          \
    --depth;                                    \
    return made;                                \
  }

ALLOCATING(malloc, (size_t size), (size))
ALLOCATING(calloc, (size_t count, size_t size), (count, size))
ALLOCATING(realloc, (void *old, size_t size), (old, size))

char *strdup(const char *text) {
  if (fails("allocation")) return NULL;
  ++depth;
  char *made = NEXT(strdup)(text);
  --depth;
  return made;
}

/* The operators new of C++, by the names under which the linker knows them. Those of a sanitizer do
   not go through malloc(). */
void *_Znwm(size_t size);
void *_Znam(size_t size);
void *_ZnwmRKSt9nothrow_t(size_t size, const void *tag);
void *_ZnamRKSt9nothrow_t(size_t size, const void *tag);
void _ZSt17__throw_bad_allocv(void) __attribute__((noreturn, weak));

ALLOCATING(_ZnwmRKSt9nothrow_t, (size_t size, const void *tag), (size, tag))
ALLOCATING(_ZnamRKSt9nothrow_t, (size_t size, const void *tag), (size, tag))

#define ALLOCATING_OR_THROWING(name)                      \
  void *name(size_t size) {                               \
    if (fails("allocation")) _ZSt17__throw_bad_allocv();  \
    ++depth;                                              \
    void *made = NEXT(name)(size);                        \
    --depth;                                              \
    return made;                                          \
  }

ALLOCATING_OR_THROWING(_Znwm)
ALLOCATING_OR_THROWING(_Znam)

/* A sanitizer asks this for the stack of a new thread, and cannot do without an answer. */
int pthread_getattr_np(pthread_t thread, pthread_attr_t *attributes) {
  ++depth;
  const int result = NEXT(pthread_getattr_np)(thread, attributes);
  --depth;
  return result;
}

/* ---- Descriptors and sockets ----------------------------------------------------------------- */

FAILING(int, socket, (int domain, int type, int protocol), (domain, type, protocol), -1)
FAILING(int, bind, (int fd, const struct sockaddr *address, socklen_t size), (fd, address, size),
        -1)
FAILING(int, listen, (int fd, int backlog), (fd, backlog), -1)
FAILING(int, accept4, (int fd, struct sockaddr *address, socklen_t *size, int flags),
        (fd, address, size, flags), -1)
FAILING(int, connect, (int fd, const struct sockaddr *address, socklen_t size), (fd, address, size),
        -1)
FAILING(int, setsockopt, (int fd, int level, int option, const void *value, socklen_t size),
        (fd, level, option, value, size), -1)
FAILING(int, getsockopt, (int fd, int level, int option, void *value, socklen_t *size),
        (fd, level, option, value, size), -1)
FAILING(ssize_t, recv, (int fd, void *data, size_t size, int flags), (fd, data, size, flags), -1)
FAILING(ssize_t, send, (int fd, const void *data, size_t size, int flags), (fd, data, size, flags),
        -1)
FAILING(ssize_t, sendmsg, (int fd, const struct msghdr *message, int flags), (fd, message, flags),
        -1)
FAILING(int, select, (int count, fd_set *in, fd_set *out, fd_set *error, struct timeval *limit),
        (count, in, out, error, limit), -1)
/* The calls for the debug output always succeed: every line makes them. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized" /* poll() is declared as if it only wrote */
int poll(struct pollfd *fds, nfds_t count, int limit) {
  const int output = count == 1 && fds[0].fd == STDOUT_FILENO;
  return !output && fails("poll") ? -1 : NEXT(poll)(fds, count, limit);
}
#pragma GCC diagnostic pop

ssize_t write(int fd, const void *data, size_t size) {
  return fd != STDOUT_FILENO && fails("write") ? -1 : NEXT(write)(fd, data, size);
}

FAILING(int, ppoll,
        (struct pollfd *fds, nfds_t count, const struct timespec *limit, const sigset_t *mask),
        (fds, count, limit, mask), -1)
FAILING(int, epoll_create1, (int flags), (flags), -1)
FAILING(int, epoll_ctl, (int watch, int operation, int fd, struct epoll_event *event),
        (watch, operation, fd, event), -1)
FAILING(int, epoll_wait, (int watch, struct epoll_event *events, int most, int limit),
        (watch, events, most, limit), -1)
FAILING(int, eventfd, (unsigned int count, int flags), (count, flags), -1)
FAILING(int, signalfd, (int fd, const sigset_t *mask, int flags), (fd, mask, flags), -1)
FAILING(ssize_t, read, (int fd, void *data, size_t size), (fd, data, size), -1)

/* What calls become when the compiler cannot see that the room suffices (_FORTIFY_SOURCE). */
#define FORTIFIED(result, checked, name, parameters, arguments, failure) \
  result checked parameters;                                            \
  result checked parameters {                                           \
    if (fails(#name)) return failure;                                   \
    return NEXT(checked) arguments;                                     \
  }

FORTIFIED(ssize_t, __recv_chk, recv, (int fd, void *data, size_t size, size_t room, int flags),
          (fd, data, size, room, flags), -1)
FORTIFIED(ssize_t, __read_chk, read, (int fd, void *data, size_t size, size_t room),
          (fd, data, size, room), -1)
FORTIFIED(int, __poll_chk, poll, (struct pollfd *fds, nfds_t count, int limit, size_t room),
          (fds, count, limit, room), -1)
FORTIFIED(int, __ppoll_chk, ppoll,
          (struct pollfd *fds, nfds_t count, const struct timespec *limit, const sigset_t *mask,
           size_t room),
          (fds, count, limit, mask, room), -1)

FAILING(ssize_t, writev, (int fd, const struct iovec *parts, int count), (fd, parts, count), -1)
FAILING(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence), -1)
FAILING(int, dup2, (int from, int to), (from, to), -1)
FAILING_AFTERWARDS(int, close, (int fd), (fd), -1)

int fcntl(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  const long argument = va_arg(arguments, long);
  va_end(arguments);
  return fails("fcntl") ? -1 : NEXT(fcntl)(fd, command, argument);
}

/* ---- Files ----------------------------------------------------------------------------------- */

int open(const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return fails("open") ? -1 : NEXT(open)(path, flags, mode);
}

int openat(int directory, const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return fails("openat") ? -1 : NEXT(openat)(directory, path, flags, mode);
}

FAILING(DIR *, opendir, (const char *path), (path), NULL)
FAILING(struct dirent *, readdir, (DIR * directory), (directory), NULL)
FAILING_AFTERWARDS(int, closedir, (DIR * directory), (directory), -1)
FAILING(int, mkdirat, (int directory, const char *path, mode_t mode), (directory, path, mode), -1)
FAILING(int, rename, (const char *from, const char *to), (from, to), -1)
FAILING(int, renameat2,
        (int from_dir, const char *from, int to_dir, const char *to, unsigned int flags),
        (from_dir, from, to_dir, to, flags), -1)
FAILING(int, unlinkat, (int directory, const char *path, int flags), (directory, path, flags), -1)
FAILING(int, symlinkat, (const char *target, int directory, const char *path),
        (target, directory, path), -1)
FAILING(ssize_t, readlinkat, (int directory, const char *path, char *target, size_t size),
        (directory, path, target, size), -1)
FAILING(int, fstatat, (int directory, const char *path, struct stat *found, int flags),
        (directory, path, found, flags), -1)
FAILING(int, fchown, (int fd, uid_t owner, gid_t group), (fd, owner, group), -1)
FAILING(int, fchmod, (int fd, mode_t mode), (fd, mode), -1)
FAILING(int, ftruncate, (int fd, off_t size), (fd, size), -1)
FAILING(int, flock, (int fd, int operation), (fd, operation), -1)
FAILING(int, mkostemp, (char *path, int flags), (path, flags), -1)
FAILING(FILE *, fopen, (const char *path, const char *mode), (path, mode), NULL)
FAILING(FILE *, fdopen, (int fd, const char *mode), (fd, mode), NULL)
FAILING_AFTERWARDS(int, fclose, (FILE * file), (file), EOF)

/* A new file is as new by the daemon's clock as it is by the kernel's. */
#define EXAMINING(name, parameters, arguments)                                \
  int name parameters {                                                       \
    if (fails(#name)) return -1;                                              \
    const int result = NEXT(name) arguments;                                  \
    if (result == 0) found->st_ctim.tv_sec += atomic_load(&control->ahead);   \
    return result;                                                            \
  }

EXAMINING(stat, (const char *path, struct stat *found), (path, found))
EXAMINING(lstat, (const char *path, struct stat *found), (path, found))
EXAMINING(fstat, (int fd, struct stat *found), (fd, found))

/* The stream's own error flag. */
static void mark(FILE *file) {
  enum { ERROR_SEEN = 0x20 };
  file->_flags |= ERROR_SEEN;
}

char *fgets(char *line, int size, FILE *file) {
  if (!fails("fgets")) return NEXT(fgets)(line, size, file);
  mark(file);
  return NULL;
}

/* getline() */
ssize_t __getdelim(char **line, size_t *size, int delimiter, FILE *file) {
  if (!fails("getline")) return NEXT_AS(getdelim, "__getdelim")(line, size, delimiter, file);
  mark(file);
  return -1;
}

size_t fwrite(const void *data, size_t size, size_t count, FILE *file) {
  if (file == stdout || !fails("fwrite")) return NEXT(fwrite)(data, size, count, file);
  mark(file);
  return 0;
}

__attribute__((format(printf, 2, 0))) static int print(FILE *file, const char *format,
                                                      va_list arguments) {
  if (file == stderr || !fails("fprintf")) return vfprintf(file, format, arguments);
  mark(file);
  return -1;
}

int fprintf(FILE *file, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = print(file, format, arguments);
  va_end(arguments);
  return result;
}

/* The same, as _FORTIFY_SOURCE has it. */
int __fprintf_chk(FILE *file, int level, const char *format, ...);
int __fprintf_chk(FILE *file, int level, const char *format, ...) {
  (void)level;
  va_list arguments;
  va_start(arguments, format);
  const int result = print(file, format, arguments);
  va_end(arguments);
  return result;
}

char *__fgets_chk(char *line, size_t room, int size, FILE *file);
char *__fgets_chk(char *line, size_t room, int size, FILE *file) {
  if (!fails("fgets")) return NEXT(__fgets_chk)(line, room, size, file);
  mark(file);
  return NULL;
}

int fflush(FILE *file) {
  if (file == stdout || file == stderr || !fails("fflush")) return NEXT(fflush)(file);
  return EOF;
}

/* ---- The rest -------------------------------------------------------------------------------- */

FAILING(int, getrlimit, (__rlimit_resource_t resource, struct rlimit *limit), (resource, limit), -1)
FAILING(int, setrlimit, (__rlimit_resource_t resource, const struct rlimit *limit),
        (resource, limit), -1)
FAILING(ssize_t, getrandom, (void *data, size_t size, unsigned int flags), (data, size, flags), -1)
FAILING(int, gethostname, (char *name, size_t size), (name, size), -1)
FAILING(int, daemon, (int keep_directory, int keep_output), (keep_directory, keep_output), -1)
FAILING(int, sigtimedwait, (const sigset_t *set, siginfo_t *info, const struct timespec *limit),
        (set, info, limit), -1)
FAILING(int, regcomp, (regex_t * compiled, const char *pattern, int flags),
        (compiled, pattern, flags), REG_ESPACE)
FAILING(int, regexec,
        (const regex_t *compiled, const char *text, size_t count, regmatch_t matches[count],
         int flags),
        (compiled, text, count, matches, flags), REG_ESPACE)

time_t time(time_t *result) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  now.tv_sec += atomic_load(&control->ahead);
  if (result != NULL) *result = now.tv_sec;
  return now.tv_sec;
}

struct start {
  void *(*routine)(void *);
  void *argument;
  int64_t number;
};

static struct start starts[WORKERS + 1];
static _Atomic int64_t created;

static void *run(void *given) {
  const struct start *start = given;
  own_number = start->number;
  return start->routine(start->argument);
}

/* The long-lived threads are counted one by one, those of connections together. */
int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*routine)(void *),
                   void *argument) {
  if (fails("pthread_create")) return errno;
  const int64_t number = atomic_fetch_add(&created, 1) + 1;
  if (number > WORKERS) return NEXT(pthread_create)(thread, attributes, routine, argument);
  starts[number] = (struct start){routine, argument, number};
  return NEXT(pthread_create)(thread, attributes, run, &starts[number]);
}
