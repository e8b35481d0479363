/* Client interface of the station's authentication library. */
#ifndef TQAUTH_H
#define TQAUTH_H

#ifdef __cplusplus
extern "C" {
#endif

/* Authenticates the client at the other end of the connected socket `sock`, in an exchange of the
 * library's own. Returns the client's argument line, which stays valid until the calling thread's
 * next call and is not to be freed; null when the client is not authenticated, with EUSERS in errno
 * when that is because too many others are logging in. Where a user name is known, even that of a
 * client who failed, *user is set to a malloc'ed copy that the caller frees; otherwise it is left
 * alone. With a name, the line leaves room for " user=" and the name within 1023 characters.
 *
 * Any thread. Takes a bounded time and reads a bounded number of bytes. */
char* authenticate(int sock, char** user);

/* Has `refused` called, from authenticate() and on its thread, for every name and password of a
 * client that are not accepted. A library need not have this: the symbol is weak. */
typedef void tqauth_refused(int sock, const char* user);
void authenticate_tell_refusals(tqauth_refused* refused) __attribute__((weak));

#ifdef __cplusplus
}
#endif

#endif
