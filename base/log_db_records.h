// The log database on the service bus: its methods, and the records that they carry. The daemon and
// its clients share this file, for a record travels as it is in memory.
//
// Every record has the layout of a little-endian build with integers of 64 bits on multiples of 8
// bytes and of 32 bits on multiples of 4; padding is zero or ignored. Texts end with a zero byte
// within their arrays. Times are seconds since the epoch, rates bytes per second, totals bytes.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

constexpr size_t DB_TEXT_SIZE = 1025;  // of nearly every text, the closing zero included

// The request of every query.
struct db_query_cond {
  int64_t start;             // first row, from 0
  int64_t count;             // number of rows; -1 for all
  int64_t order_by;          // number of the column to sort by; 0 the default
  int64_t order_style;       // 1 descending, 0 ascending
  char field[DB_TEXT_SIZE];  // column of a condition, empty for none
  char value[DB_TEXT_SIZE];  // value of that condition
};

// The request of every deletion but that of a block, which names its user.
struct db_delete_cond {
  int64_t id;
};

// The head of every query's answer; `count` rows follow it. On the wire `data` is eight bytes
// without meaning, in memory it points to the rows.
template <typename Row>
struct db_query_answer {
  uint64_t count;  // rows in this answer
  uint64_t total;  // rows in the table
  alignas(8) Row* data;
};

// An event of a connection to a server of the appliance.
struct db_conn_server_log {
  int64_t id;  // set by the daemon
  char username[DB_TEXT_SIZE];
  int vpn_type;     // ormel::TYPE
  uint64_t uptime;  // seconds connected
  uint64_t time;    // of the event
  char device_info[DB_TEXT_SIZE];
  char source_ip[DB_TEXT_SIZE];
  char vpn_ip[DB_TEXT_SIZE];
  int64_t tx_rate;
  int64_t rx_rate;
  int64_t tx_total;
  int64_t rx_total;
  char outgoing[DB_TEXT_SIZE];  // interface
  int action;                   // kind of the event
};

// An event of a client profile.
struct db_conn_client_log_data {
  int64_t id;
  char username[DB_TEXT_SIZE];  // profile name or account
  int vpn_type;                 // ormel::TYPE
  uint64_t uptime;              // seconds connected
  uint64_t time;                // of the event
  char vpn_ip[DB_TEXT_SIZE];
  int64_t tx_rate;
  int64_t rx_rate;
  int64_t tx_total;
  int64_t rx_total;
  char country_code[3];  // of the server
  char wan_ip[DB_TEXT_SIZE];
  int action;  // kind of the event
};

// The table of events holds nothing: the record is one byte without meaning.
struct db_event_data {};

// A session of a mobile client.
struct db_server_list_data {
  int64_t id;
  char uuid[DB_TEXT_SIZE];
  char username[DB_TEXT_SIZE];
  char sid[DB_TEXT_SIZE];
  char device_name[1024];
  uint64_t expire_time;
  uint64_t time;
};

// A device of a mobile client.
struct db_device_info_data {
  int64_t id;
  char ip[DB_TEXT_SIZE];
  char mac[DB_TEXT_SIZE];
  char fenrosid[DB_TEXT_SIZE];
  char user_id[DB_TEXT_SIZE];
  char dev_name[DB_TEXT_SIZE];
  char dev_uuid[DB_TEXT_SIZE];
  char nic[DB_TEXT_SIZE];
  uint64_t time;
};

// The failed logins of a user.
struct db_privilege_user_block_data {
  int64_t id;
  char username[DB_TEXT_SIZE];
  int limit;           // failed attempts counted so far
  uint64_t timestamp;  // of the last failure
};

// The request and the answer for a new device identifier, a text without a closing zero.
struct ormel_mobile_gen_uuid_data_set {
  int type;
};
struct ormel_mobile_gen_uuid_data_get {
  char ormel_uuid[36];
};

using db_conn_server_log_query = db_query_answer<db_conn_server_log>;
using db_conn_client_log_query = db_query_answer<db_conn_client_log_data>;
using db_event_query = db_query_answer<db_event_data>;
using db_server_list_query = db_query_answer<db_server_list_data>;
using db_device_info_query = db_query_answer<db_device_info_data>;
using db_privilege_user_block_query = db_query_answer<db_privilege_user_block_data>;

namespace ormel::log_db {

constexpr const char* SERVICE = "@/var/run/ormeld.sock";
constexpr int TIMEOUT = 5;  // seconds

// The methods of one table. The reply to an insert, a deletion and a cleaning is of no interest but
// for the insert of a device, which is answered with the device's identifier.
struct Methods {
  const char*
      insert;  // takes the record; for a block the bytes of the user's name, without a closing zero
  const char* query;   // takes a db_query_cond
  const char* remove;  // takes a db_delete_cond; for a block the user's name as above
  const char* clean;   // takes nothing
};

constexpr Methods CONN_SERVER_LOG{
    "db_conn_insert",  // without a word for the server's side: clients in the field say so
    "db_conn_server_log_query", "db_conn_server_log_del", "db_conn_server_log_clean"};
constexpr Methods CONN_CLIENT_LOG{"db_conn_client_log_insert", "db_conn_client_log_query",
                                  "db_conn_client_log_del", "db_conn_client_log_clean"};
constexpr Methods EVENT_DATA{"db_event_insert", "db_event_query", nullptr, nullptr};
constexpr Methods SERVER_LIST{"db_server_list_insert", "db_server_list_query", "db_server_list_del",
                              "db_server_list_clean"};
constexpr Methods DEVICE_INFO{"db_device_info_insert", "db_device_info_query", "db_device_info_del",
                              "db_device_info_clean"};
constexpr Methods PRIVILEGE_USER_BLOCK{
    "db_privilege_user_block_insert", "db_privilege_user_block_query",
    "db_privilege_user_block_del", "db_privilege_user_block_clean"};

// Takes the user's name as an insert does. The reply is a text: "1" for a blocked user, else "0" or
// "-1".
constexpr const char* PRIVILEGE_USER_BLOCK_CHECK = "db_privilege_user_block_check";
// Takes an ormel_mobile_gen_uuid_data_set, answered with an ormel_mobile_gen_uuid_data_get.
constexpr const char* MOBILE_GEN_UUID = "ormel_mobile_gen_ormel_uuid";

static_assert(std::endian::native == std::endian::little, "records travel as they lie in memory");
static_assert(sizeof(db_query_cond) == 2088 && offsetof(db_query_cond, value) == 1057);
static_assert(sizeof(db_delete_cond) == 8);
static_assert(sizeof(db_conn_server_log_query) == 24 &&
              offsetof(db_conn_server_log_query, data) == 16);
static_assert(sizeof(db_conn_server_log) == 5200 && offsetof(db_conn_server_log, action) == 5196);
static_assert(sizeof(db_conn_client_log_data) == 3152 &&
              offsetof(db_conn_client_log_data, action) == 3148);
static_assert(sizeof(db_event_data) == 1);
static_assert(sizeof(db_server_list_data) == 4128 && offsetof(db_server_list_data, time) == 4120);
static_assert(sizeof(db_device_info_data) == 7192 && offsetof(db_device_info_data, time) == 7184);
static_assert(sizeof(db_privilege_user_block_data) == 1048 &&
              offsetof(db_privilege_user_block_data, timestamp) == 1040);
static_assert(sizeof(ormel_mobile_gen_uuid_data_set) == 4);
static_assert(sizeof(ormel_mobile_gen_uuid_data_get) == 36);

}  // namespace ormel::log_db
