/* Facts about the appliance, and names for temporary files. */
#ifndef FENRO_HOST_H
#define FENRO_HOST_H

#ifdef __cplusplus
extern "C" {
#endif

/* The appliance's public address as text into `buffer` of `length` bytes: "Public Address" of the
 * section "System" in Corlin.conf where it is set, which may be a name, else the address of the
 * host's own default route; a tunnel's never. 0 on success, negative on failure. */
int Get_External_IP(char* buffer, int length);

/* Replaces the trailing "XXXXXX" of the template so that no file of that name exists. 0 = done. */
int vantri_mktmpname(char* name_template);

#ifdef __cplusplus
}
#endif

#endif
