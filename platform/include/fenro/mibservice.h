/* The service bus: requests to the appliance's daemons and the growing buffer that carries them.
 *
 * Wire form of this implementation. A registered service NAME listens on the abstract socket
 * "\0fenro-bus/NAME"; a service written with a leading "@" listens on the abstract socket of the
 * text behind it. A connection carries one request and one reply, each in one frame:
 *
 *   request: u32 total | u32 method length | method | body      (total counts everything behind
 * itself) reply:   u32 total | u32 status        | body               (status is a MIB_ value)
 *
 * Numbers are little-endian. A frame above 64 MiB is refused. Both ends read the other's
 * credentials from the kernel and speak only with root or with their own user. */
#ifndef FENRO_MIBSERVICE_H
#define FENRO_MIBSERVICE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct mib_io mib_io; /* growing byte buffer, owned by its creator */

enum {
  MIB_SUCCESS,
  MIB_TIMEOUT,   /* the service did not answer within the time-out */
  MIB_NOT_READY, /* nobody serves that name */
  MIB_IS_PAUSED,
  MIB_IS_REJECT,  /* one end refused the other's credentials, or the frame was too large */
  MIB_IO_FAILURE, /* the connection broke, or a reply was malformed */
  MIB_IS_BUSY,
  MIB_IS_INVALID /* the service has no such method, or the arguments are unusable */
};

/* A new, empty buffer; null when memory is short. Released with mib_io_free, which takes null. */
mib_io* mib_io_create(void);
void mib_io_free(mib_io* io);

/* Appends `length` bytes. Returns the bytes written: `length`, or 0 when memory is short or io is
 * null. */
int mib_io_write(mib_io* io, const char* bytes, size_t length);

/* Appends formatted text. Returns its length in bytes, negative on failure. */
int mib_io_printf(mib_io* io, const char* format, ...)
#ifdef __GNUC__
    __attribute__((format(printf, 2, 3)))
#endif
    ;

/* The contents with a NUL byte behind them; they stay the buffer's, valid until it changes.
 * `length` (may be null) takes their size without that NUL. */
const char* mib_io_read(mib_io* io, size_t* length);

/* Makes room for `size` bytes; `size` 0 empties the buffer. 0 on success, -1 when memory is short.
 */
int mib_io_realloc(mib_io* io, size_t size);

/* One synchronous call. `io` holds the request and, after MIB_SUCCESS, the reply alone; after a
 * failure its contents are the request still. An absent service answers at once with MIB_NOT_READY,
 * a silent one with MIB_TIMEOUT after `timeout_seconds`. `flag` is reserved; callers pass -1. */
int mib_call(const char* service, const char* method, mib_io* io, int timeout_seconds, int flag);

/* Runs argv[0] with the arguments of the null-closed `argv`, no shell, and appends all of its
 * standard output to `out` and of its standard error to `err` (either may be null: dropped).
 * `context` is null, or a mib_io whose contents become the program's standard input. Returns when
 * the program itself has ended, even if something it left behind still holds the pipes. 0 for exit
 * status 0, the exit status otherwise (128 + the signal for a program that a signal ended), -1 if
 * it could not start. */
int mib_io_execv(void* context, mib_io* out, mib_io* err, char** argv);

#ifdef __cplusplus
}
#endif

#endif
