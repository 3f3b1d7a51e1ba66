#include "daemons/ormeld/methods.h"

#include <cstdio>
#include <cstring>

#include "base/log_db_records.h"
#include "daemons/ormeld/identifier.h"

namespace fenro::ormeld {
namespace {

using bus::Reply;

std::vector<Table> make_tables(Database& database) {
  std::vector<Table> tables;
  for (std::size_t id = 0; id < TABLE_COUNT; ++id)
    tables.emplace_back(database, table_info(TableId{id}));
  return tables;
}

Reply insert(LogDatabase& database, TableId table, std::string_view body) {
  return {database.table(table).insert(body)};
}

Reply query(LogDatabase& database, TableId table, std::string_view body) {
  Reply reply;
  reply.status = database.table(table).query(body, reply.body);
  return reply;
}

Reply remove(LogDatabase& database, TableId table, std::string_view body) {
  db_delete_cond cond;
  if (body.size() != sizeof cond) return {MIB_IS_INVALID};
  std::memcpy(&cond, body.data(), sizeof cond);
  return {database.table(table).remove(cond.id)};
}

Reply clean(LogDatabase& database, TableId table, std::string_view body) {
  return {body.empty() ? database.table(table).clean() : MIB_IS_INVALID};
}

// A device that brings no identifier gets one, without hyphens: callers have room for 35
// characters.
Reply insert_device(LogDatabase& database, TableId table, std::string_view body) {
  db_device_info_data record;
  if (!is_record(table_info(table), body)) return {MIB_IS_INVALID};
  std::memcpy(&record, body.data(), sizeof record);
  std::string identifier = record.dev_uuid;
  if (identifier.empty()) {
    identifier = make_identifier(false);
    if (identifier.empty()) return {MIB_IO_FAILURE};
    std::memcpy(record.dev_uuid, identifier.c_str(), identifier.size() + 1);
  }
  const int status =
      database.table(table).insert({reinterpret_cast<const char*>(&record), sizeof record});
  return {status, status == MIB_SUCCESS ? identifier : ""};
}

Reply make_uuid(LogDatabase&, TableId, std::string_view body) {
  if (body.size() != sizeof(ormel_mobile_gen_uuid_data_set)) return {MIB_IS_INVALID};
  std::string uuid = make_identifier(true);
  return uuid.empty() ? Reply{MIB_IO_FAILURE} : Reply{MIB_SUCCESS, std::move(uuid)};
}

Reply count_failure(LogDatabase& database, TableId, std::string_view body) {
  return {database.blocks().count(body)};
}
Reply forget_failures(LogDatabase& database, TableId, std::string_view body) {
  return {database.blocks().forget(body)};
}
Reply check_block(LogDatabase& database, TableId, std::string_view body) {
  Reply reply;
  reply.status = database.blocks().check(body, reply.body);
  return reply;
}

namespace names = ormel::log_db;
constexpr Method METHODS[] = {
    {names::CONN_SERVER_LOG.insert, insert, SERVER_LOG},
    {names::CONN_SERVER_LOG.query, query, SERVER_LOG},
    {names::CONN_SERVER_LOG.remove, remove, SERVER_LOG},
    {names::CONN_SERVER_LOG.clean, clean, SERVER_LOG},
    {names::CONN_CLIENT_LOG.insert, insert, CLIENT_LOG},
    {names::CONN_CLIENT_LOG.query, query, CLIENT_LOG},
    {names::CONN_CLIENT_LOG.remove, remove, CLIENT_LOG},
    {names::CONN_CLIENT_LOG.clean, clean, CLIENT_LOG},
    {names::EVENT_DATA.insert, insert, EVENT},
    {names::EVENT_DATA.query, query, EVENT},
    {names::SERVER_LIST.insert, insert, SERVER_LIST},
    {names::SERVER_LIST.query, query, SERVER_LIST},
    {names::SERVER_LIST.remove, remove, SERVER_LIST},
    {names::SERVER_LIST.clean, clean, SERVER_LIST},
    {names::DEVICE_INFO.insert, insert_device, DEVICE_INFO},
    {names::DEVICE_INFO.query, query, DEVICE_INFO},
    {names::DEVICE_INFO.remove, remove, DEVICE_INFO},
    {names::DEVICE_INFO.clean, clean, DEVICE_INFO},
    {names::MOBILE_GEN_UUID, make_uuid, DEVICE_INFO},
    {names::PRIVILEGE_USER_BLOCK.insert, count_failure, USER_BLOCK},
    {names::PRIVILEGE_USER_BLOCK.query, query, USER_BLOCK},
    {names::PRIVILEGE_USER_BLOCK.remove, forget_failures, USER_BLOCK},
    {names::PRIVILEGE_USER_BLOCK.clean, clean, USER_BLOCK},
    {names::PRIVILEGE_USER_BLOCK_CHECK, check_block, USER_BLOCK},
};

}  // namespace

LogDatabase::LogDatabase(std::string policy, UserBlocks::Clock now)
    : tables_(make_tables(database_)),
      blocks_(database_, tables_[USER_BLOCK], std::move(policy), now) {}

int LogDatabase::open_all(const std::string& path) {
  int rc = database_.open(path);
  if (rc != SQLITE_OK) return rc;
  Transaction transaction{database_};  // one flush for all tables and indexes
  for (Table& table : tables_) {
    if (rc == SQLITE_OK) rc = table.open();
  }
  if (rc != SQLITE_OK) return rc;
  return transaction.commit() ? SQLITE_OK : SQLITE_IOERR;
}

bool LogDatabase::open(const std::string& path) {
  int rc = open_all(path);
  if (rc == SQLITE_NOTADB || rc == SQLITE_CORRUPT) {
    std::fprintf(stderr, "ormeld: %s is damaged, starting with an empty one\n", path.c_str());
    put_aside(path);
    rc = open_all(path);
  }
  if (rc != SQLITE_OK) std::fprintf(stderr, "ormeld: %s: %s\n", path.c_str(), sqlite3_errstr(rc));
  return rc == SQLITE_OK;
}

std::span<const Method> methods() {
  return METHODS;
}

}  // namespace fenro::ormeld
