/* Sessions of the web interface, and the users of the appliance. */
#ifndef FENRO_AUTH_H
#define FENRO_AUTH_H

#ifdef __cplusplus
extern "C" {
#endif

struct _session {
  long touched;  /* time of last use, seconds since the epoch */
  char sid[9];   /* eight characters */
  char ip[65];   /* address of the client */
  char user[57]; /* account name */
  int type;      /* reserved, 0 */
  char reserved[16];
  char host_ip[65];  /* address of this appliance that the client spoke to */
  char sub_user[57]; /* reserved, empty */
  int uid;           /* numeric user id */
};

/* Looks a session up: 0 when it is valid, with `session` (may be null) filled; non-zero otherwise.
 * With `touch` non-zero a valid session's time of last use becomes now. */
int auth_get_session(const char* sid, int touch, struct _session* session);

/* Non-zero when the user belongs to the group, as a member or by its primary group. */
int User_Belongs_To_Group(const char* user, const char* group);

/* 0 when the password is the user's and the account may log in, negative otherwise. The password of
 * a user with a second factor ends with its code, or is "SCRV1:BASE64:BASE64" as OpenVPN's clients
 * send both; a code counts once. */
int Check_NAS_User_Password(const char* user, const char* password);

/* Names of users. The rows `lower` to `upper` (counted from 0, both included) of those that contain
 * `filter` (null or empty: all) are allocated into `list` with malloc and freed by the caller;
 * `total` takes the number of all that match. Returns the number of rows in `list`, negative on
 * failure. */
int Get_Local_User_List_V2(char (**list)[33], int lower, int upper, const char* filter, int* total);
int Get_LDAP_User_List_V2(char (**list)[33], int lower, int upper, const char* filter, int* total);
int Get_Expand_Domain_User_List_V2(char (**list)[209], int lower, int upper, const char* filter,
                                   int* total, int a, int b, int c); /* a, b and c are reserved */

/* Non-zero when the host's accounts come from an LDAP directory too. */
int Is_LDAP_Enable(void);

#ifdef __cplusplus
}
#endif

#endif
