/* Dates and times in local time and in the form that the appliance is set to. Every buffer holds at
 * least 64 bytes.
 *
 * Date formats by their index, with 7 March 2024:
 *
 *   0  2024/03/07    2  03/07/2024    4  07/03/2024
 *   1  2024-03-07    3  03-07-2024    5  07-03-2024
 *
 * Time formats: 0 for 24 hours, as in 14:05:09, 1 for 12 hours, as in 02:05:09 PM. */
#ifndef FENRO_DATETIME_H
#define FENRO_DATETIME_H

#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Date, a blank, and time with seconds, both in the formats that are set. */
int Change_Date_Time_To_String(time_t seconds, char* buffer); /* 0 = done */

/* 0 when done; non-zero, with an empty buffer, for a format that is not in the table. */
int Change_Date_To_String_By_Format(time_t seconds, char* buffer, int format);
int Change_Time_To_String_By_Format(time_t seconds, char* buffer, int seconds_too, int format);

/* The formats that are set: the keys "Date Format" and "Time Format" of the section [System] in
 * /etc/config/Corlin.conf. 0 where there is none or one that is not in the table. */
int Get_Date_Format_Index(void);
int Get_Time_Format(void);

#ifdef __cplusplus
}
#endif

#endif
