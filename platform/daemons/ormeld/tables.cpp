#include "daemons/ormeld/tables.h"

#include <algorithm>
#include <array>
#include <type_traits>

#include "base/log_db_records.h"
#include "libmibservice/wire.h"

namespace fenro::ormeld {
namespace {

template <typename Field>
constexpr Kind kind_of() {
  static_assert(std::is_array_v<Field> || sizeof(Field) == 4 || sizeof(Field) == 8);
  if (std::is_array_v<Field>) return Kind::Text;
  return sizeof(Field) == 4 ? Kind::Number32 : Kind::Number64;
}

// The name of a column is that of its field, the offset and the size are the compiler's word.
#define COLUMN(RECORD, FIELD)                                                                    \
  Column {                                                                                       \
#FIELD, kind_of < decltype(RECORD::FIELD)>(), offsetof(RECORD, FIELD), sizeof(RECORD::FIELD) \
  }

constexpr std::array SERVER_LOG_COLUMNS{
    COLUMN(db_conn_server_log, id),        COLUMN(db_conn_server_log, username),
    COLUMN(db_conn_server_log, vpn_type),  COLUMN(db_conn_server_log, uptime),
    COLUMN(db_conn_server_log, time),      COLUMN(db_conn_server_log, device_info),
    COLUMN(db_conn_server_log, source_ip), COLUMN(db_conn_server_log, vpn_ip),
    COLUMN(db_conn_server_log, tx_rate),   COLUMN(db_conn_server_log, rx_rate),
    COLUMN(db_conn_server_log, tx_total),  COLUMN(db_conn_server_log, rx_total),
    COLUMN(db_conn_server_log, outgoing),  COLUMN(db_conn_server_log, action),
};
constexpr std::array CLIENT_LOG_COLUMNS{
    COLUMN(db_conn_client_log_data, id),           COLUMN(db_conn_client_log_data, username),
    COLUMN(db_conn_client_log_data, vpn_type),     COLUMN(db_conn_client_log_data, uptime),
    COLUMN(db_conn_client_log_data, time),         COLUMN(db_conn_client_log_data, vpn_ip),
    COLUMN(db_conn_client_log_data, tx_rate),      COLUMN(db_conn_client_log_data, rx_rate),
    COLUMN(db_conn_client_log_data, tx_total),     COLUMN(db_conn_client_log_data, rx_total),
    COLUMN(db_conn_client_log_data, country_code), COLUMN(db_conn_client_log_data, wan_ip),
    COLUMN(db_conn_client_log_data, action),
};
constexpr std::array EVENT_COLUMNS{Column{"id", Kind::Number64, 0, 0}};
constexpr std::array SERVER_LIST_COLUMNS{
    COLUMN(db_server_list_data, id),          COLUMN(db_server_list_data, uuid),
    COLUMN(db_server_list_data, username),    COLUMN(db_server_list_data, sid),
    COLUMN(db_server_list_data, device_name), COLUMN(db_server_list_data, expire_time),
    COLUMN(db_server_list_data, time),
};
constexpr std::array DEVICE_INFO_COLUMNS{
    COLUMN(db_device_info_data, id),       COLUMN(db_device_info_data, ip),
    COLUMN(db_device_info_data, mac),      COLUMN(db_device_info_data, fenrosid),
    COLUMN(db_device_info_data, user_id),  COLUMN(db_device_info_data, dev_name),
    COLUMN(db_device_info_data, dev_uuid), COLUMN(db_device_info_data, nic),
    COLUMN(db_device_info_data, time),
};
constexpr std::array USER_BLOCK_COLUMNS{
    COLUMN(db_privilege_user_block_data, id),
    COLUMN(db_privilege_user_block_data, username),
    COLUMN(db_privilege_user_block_data, limit),
    COLUMN(db_privilege_user_block_data, timestamp),
};
#undef COLUMN

constexpr std::size_t BLOCK_TIMESTAMP = 3;

// Sessions, devices and blocks are asked for whole, so that all of them must fit into one answer.
constexpr TableInfo TABLES[] = {
    // name, bytes of a record, columns, rows kept, column by which a row is old
    {"conn_server_log", sizeof(db_conn_server_log), SERVER_LOG_COLUMNS, 100'000, ID_COLUMN},
    {"conn_client_log", sizeof(db_conn_client_log_data), CLIENT_LOG_COLUMNS, 100'000, ID_COLUMN},
    {"event", sizeof(db_event_data), EVENT_COLUMNS, 100'000, ID_COLUMN},
    {"server_list", sizeof(db_server_list_data), SERVER_LIST_COLUMNS, 10'000, ID_COLUMN},
    {"device_info", sizeof(db_device_info_data), DEVICE_INFO_COLUMNS, 5'000, ID_COLUMN},
    {"user_block", sizeof(db_privilege_user_block_data), USER_BLOCK_COLUMNS, 20'000,
     BLOCK_TIMESTAMP},
};
static_assert(std::size(TABLES) == TABLE_COUNT);
static_assert(std::string_view{USER_BLOCK_COLUMNS[BLOCK_TIMESTAMP].name} == "timestamp");
static_assert(
    std::ranges::all_of(std::span{TABLES}.subspan(SERVER_LIST), [](const TableInfo& table) {
      return table.record_size * static_cast<std::size_t>(table.rows_kept + 1) < bus::MAX_FRAME;
    }));

}  // namespace

const TableInfo& table_info(TableId table) {
  return TABLES[table];
}

std::optional<std::size_t> find_column(const TableInfo& table, std::string_view name) {
  const auto found =
      std::ranges::find(table.columns, name, [](const Column& column) { return column.name; });
  if (found == table.columns.end()) return {};
  return static_cast<std::size_t>(found - table.columns.begin());
}

std::string quoted(const char* name) {
  return std::string{"\""} + name + "\"";
}

std::string index_name(const TableInfo& table, std::size_t column) {
  return std::string{"\""} + table.name + "_by_" + table.columns[column].name + "\"";
}

std::optional<std::string_view> text_in(std::string_view array) {
  const std::size_t end = array.find('\0');
  if (end == std::string_view::npos) return {};
  return array.substr(0, end);
}

bool is_record(const TableInfo& table, std::string_view bytes) {
  return bytes.size() == table.record_size &&
         std::ranges::all_of(table.columns, [&](const Column& column) {
           return column.kind != Kind::Text || text_in(bytes.substr(column.offset, column.size));
         });
}

}  // namespace fenro::ormeld
