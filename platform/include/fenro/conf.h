/* INI files of the appliance: whole files in memory, single keys, and locks around a file.
 *
 * Text form: "[section]" lines, "key = value" lines with one blank on each side of the first "=",
 * sections and keys in the order first set, sections separated by an empty line. Truth values are
 * written TRUE and FALSE; TRUE, 1 and YES in any case read as true. A value is one line: any byte
 * but CR, LF and NUL survives a round trip. A line that begins with "#" or ";" is a comment. */
#ifndef FENRO_CONF_H
#define FENRO_CONF_H

#ifdef __cplusplus
extern "C" {
#endif

typedef int BOOL;

/* A whole file in memory. The members are the library's; a caller sets `file` alone, in a zeroed
 * object, to begin a file from nothing. */
typedef struct Conf_dir {
  char file[1024]; /* path that Conf_Dir_Wirte_File writes to */
  BOOL system;     /* reserved, 0 */
  int n;           /* entries in use in section, key and val */
  int sec_num;     /* section names in use in sec */
  int sec_size;    /* allocated places of sec */
  int size;        /* allocated places of section, key and val */
  char** sec;      /* section names in the order first set, each once */
  char** section;  /* section of entry i; points at a name in sec */
  char** val;      /* value of entry i */
  char** key;      /* key of entry i */
} Conf_dir;

/* Reads a file. Never null: a missing or unreadable file gives an empty object. Released with
 * Conf_Dir_Free. */
Conf_dir* Conf_Dir_Load(const char* path);

/* Releases the object and what it holds; takes null. The object must come from Conf_Dir_Load or
 * calloc. */
void Conf_Dir_Free(Conf_dir* conf);

/* The value, owned by `conf` and valid until it changes, or `fallback` when section or key is
 * absent. */
const char* Conf_Dir_Get_Str(Conf_dir* conf, const char* section, const char* key,
                             const char* fallback);

/* The leading decimal number of the value (0 for none, cut to the range of int), or `fallback` when
 * absent. */
int Conf_Dir_Get_Int(Conf_dir* conf, const char* section, const char* key, int fallback);

/* 1 or 0, or `fallback` when section or key is absent. */
BOOL Conf_Dir_Get_Bool(Conf_dir* conf, const char* section, const char* key, BOOL fallback);

/* Creates or replaces one entry. A value is cut at its first line break; null counts as empty. */
void Conf_Dir_Set_Str(Conf_dir* conf, const char* section, const char* key, const char* value);
void Conf_Dir_Set_Int(Conf_dir* conf, const char* section, const char* key, int value);
void Conf_Dir_Set_Bool(Conf_dir* conf, const char* section, const char* key, BOOL value);

/* Writes the object to its `file`, whole or not at all: a temporary file in the same folder,
 * flushed to disk and renamed over it. An existing file keeps its mode; a new one has 0600. 0 on
 * success, -1 otherwise. */
int Conf_Dir_Wirte_File(Conf_dir* conf);

/* Removes one section from a file, in the same way of writing; comments and all else stay. 0 also
 * when the section was not there, -1 on failure. */
int Conf_Remove_Section(const char* path, const char* section);

/* One value from a file into `buffer` of `size` bytes, always closed by NUL, cut if it does not
 * fit. Returns the length of what is in the buffer. */
int Get_Private_Profile_String(const char* section, const char* key, const char* fallback,
                               char* buffer, int size, const char* path);

/* Locks that go with a file, by its path: any number of readers, or one writer. The call waits
 * until it has the lock. Returns a descriptor for Ini_Conf_Unlock_File, negative on failure. The
 * lock ends with the process. */
int Ini_Conf_Read_Lock_File(const char* path);
int Ini_Conf_Write_Lock_File(const char* path);
int Ini_Conf_Unlock_File(int descriptor); /* 0 on success */

#ifdef __cplusplus
}
#endif

#endif
