// The part of the log database's client that serves mobile clients: their sessions, devices and
// identifiers. What is said in log_db.h holds here too.
#pragma once

#include "ormel/actions/log_db.h"

int add_server_list(const db_server_list_data* record);
int list_server_list(const db_query_cond* cond, db_server_list_query** out);
int delete_server_list(const db_delete_cond* cond);
int clean_server_list();

// `out` takes the identifier of the device, cut at 35 bytes.
int add_device_info(const db_device_info_data* record, ormel_mobile_gen_uuid_data_get* out);
int list_device_info(const db_query_cond* cond, db_device_info_query** out);
int delete_device_info(const db_delete_cond* cond);
int clean_device_info();

// Fills `**out` with a new identifier.
int ormel_mobile_gen_ormel_uuid(const ormel_mobile_gen_uuid_data_set* kind,
                                ormel_mobile_gen_uuid_data_get** out);
