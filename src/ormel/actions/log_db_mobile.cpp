#include "ormel/actions/log_db_mobile.h"

#include <algorithm>
#include <cstring>

#include <fenro/mibservice.h>

#include "ormel/actions/log_db_call.h"
#include "ormel/base/log.h"

using namespace ormel;
using namespace ormel::log_db;

namespace {

constexpr size_t SHORT_UUID = sizeof(ormel_mobile_gen_uuid_data_get::ormel_uuid) - 1;

}  // namespace

int add_server_list(const db_server_list_data* record) {
  return call(__func__, SERVER_LIST.insert, bytes_of(record));
}
int list_server_list(const db_query_cond* cond, db_server_list_query** out) {
  return list(__func__, SERVER_LIST.query, cond, out);
}
int delete_server_list(const db_delete_cond* cond) {
  return call(__func__, SERVER_LIST.remove, bytes_of(cond));
}
int clean_server_list() {
  return call(__func__, SERVER_LIST.clean, {});
}

int add_device_info(const db_device_info_data* record, ormel_mobile_gen_uuid_data_get* out) {
  std::string reply;
  const int rc = call(__func__, DEVICE_INFO.insert, bytes_of(record), &reply);
  if (rc == MIB_SUCCESS) std::strncpy(out->ormel_uuid, reply.c_str(), SHORT_UUID);
  return rc;
}
int list_device_info(const db_query_cond* cond, db_device_info_query** out) {
  return list(__func__, DEVICE_INFO.query, cond, out);
}
int delete_device_info(const db_delete_cond* cond) {
  return call(__func__, DEVICE_INFO.remove, bytes_of(cond));
}
int clean_device_info() {
  return call(__func__, DEVICE_INFO.clean, {});
}

int ormel_mobile_gen_ormel_uuid(const ormel_mobile_gen_uuid_data_set* kind,
                                ormel_mobile_gen_uuid_data_get** out) {
  std::string reply;
  const int rc = call(__func__, MOBILE_GEN_UUID, bytes_of(kind), &reply);
  if (rc != MIB_SUCCESS) {
    ORMEL_LOG(DEBUG, ": mib_call failed, ret = %d", rc);
    return rc;
  }
  std::memcpy((*out)->ormel_uuid, reply.data(), std::min(reply.size(), sizeof(*out)->ormel_uuid));
  return rc;
}
