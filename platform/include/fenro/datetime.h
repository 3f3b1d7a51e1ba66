/* Dates and times in the form that the appliance is set to. Every buffer holds at least 64 bytes. */
#ifndef FENRO_DATETIME_H
#define FENRO_DATETIME_H

#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

int Change_Date_Time_To_String(time_t seconds, char *buffer);                     /* 0 = done */
int Change_Date_To_String_By_Format(time_t seconds, char *buffer, int format);   /* 0 = done */
int Change_Time_To_String_By_Format(time_t seconds, char *buffer, int seconds_too, int format);
int Get_Date_Format_Index(void);
int Get_Time_Format(void);

#ifdef __cplusplus
}
#endif

#endif
