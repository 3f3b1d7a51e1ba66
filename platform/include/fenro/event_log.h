/* The appliance's event log. */
#ifndef FENRO_EVENT_LOG_H
#define FENRO_EVENT_LOG_H

#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct naslog_event {
  int event_id;             /* not read: the log numbers its events by itself */
  int type;                 /* 0 information, 1 warning, 2 error */
  struct tm event_datetime; /* local time; all zero means now */
  char event_user[65], event_ip[65], event_comp[65];
  char event_desc[2049];
} naslog_event;

/* Receives one row; non-zero ends the query. Values may be null. The columns are, in this order:
 * id, type, date (YYYY-MM-DD), time (HH:MM:SS), user, ip, computer, description, application,
 * category, message_id. */
typedef int (*naslog_row)(void* context, int columns, char** values, char** names);

/* Adds one event. 0 on success. */
int naslog_event_add(const naslog_event* event);

/* Counts give a number of rows or a negative value, queries give 0 on success; a log without any
 * event is empty.
 *
 * A null or empty text filter lets all rows through. `description` matches a part of the text, the
 * other texts match exactly. The type of a count lets all through when it is 0, the type of a query
 * when it is null or empty. `from` and `to`, both included, are "YYYY-MM-DD", "YYYY-MM-DD HH:MM" or
 * "YYYY-MM-DD HH:MM:SS" in local time, or seconds since the epoch; a `to` without a time of day
 * means the end of its day; any other text is a failure. The rows `lower` to `upper`, both
 * included, count from 0, newest first, or oldest first with `sort` 1. */
int naslog_event_query_count_ex(int type, const char* from, const char* to, const char* user,
                                const char* ip, const char* computer, const char* description,
                                const char* application, const char* category);
int naslog_event_query_ex(naslog_row row, int sort, int lower, int upper, const char* type,
                          const char* from, const char* to, const char* user, const char* ip,
                          const char* computer, const char* description, void* context,
                          const char* application, const char* category);
int naslog_event_query_count_ex2(const char* message_id, const char* start_time,
                                 const char* end_time, const char* application,
                                 const char* category);
int naslog_event_query_ex2(naslog_row row, int lower, int upper, const char* message_id,
                           const char* start_time, const char* end_time, const char* application,
                           const char* category, void* context);

#ifdef __cplusplus
}
#endif

#endif
