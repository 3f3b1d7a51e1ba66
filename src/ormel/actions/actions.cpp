#include "ormel/actions/actions.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>
#include <unistd.h>

#include "ormel/actions/audit.h"
#include "ormel/actions/gateway_policy.h"
#include "ormel/base/error.h"
#include "ormel/base/log.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/host/interfaces.h"
#include "ormel/options/table.h"

namespace ormel {

using config::cm;
using config::PolyConfig;

namespace {

using Handler = int (*)(std::unique_ptr<PolyConfig> record, JsonValue* out);
using Step = int (config::BaseConfig::*)(int slot);

constexpr unsigned int START_TIME = 5;  // seconds that a tunnel is given before its record is shown

// The flag of a driver's stop and start: whether the record was on before.
int restart_flag(bool was_enabled) {
  return was_enabled ? 2 : 0;
}

int no_such_config() {
  return error_message(ERR_CONFIGURE_INDEX, nullptr);
}

// Adds a record in the lowest free slot. The pool and its file are touched only once the driver has
// taken it.
int take_in(const PolyConfig& record, Step step, JsonValue* out) {
  const int slot = cm.fetch_slot(record->type);
  if (slot == 0) return ERR_MAX_CONFIGS;
  if (const int rc = ((*record.bc).*step)(slot); rc != NO_ERROR) return rc;
  if (const int rc = cm.update(&record); rc != NO_ERROR) return rc;
  std::ignore = cm.save();  // the profile is shown even if the file could not be written
  record->route_nat(true);
  record->show(ADMIN_USER, out);
  return NO_ERROR;
}

// What a WireGuard server must settle before its change goes into the pool.
int settle_peers(const PolyConfig& record) {
  if (record->type != WIREGUARD_SERVER_TYPE) return NO_ERROR;
  if (const int rc = record->check_config_value(); rc != NO_ERROR) return rc;
  return record->modify_peers_ip();
}

}  // namespace

int add(std::unique_ptr<PolyConfig> record, JsonValue* out) {
  return take_in(*record, &config::BaseConfig::add, out);
}

int import(std::unique_ptr<PolyConfig> record, JsonValue* out) {
  return take_in(*record, &config::BaseConfig::import, out);
}

int show(std::unique_ptr<PolyConfig> record, JsonValue* out) {
  const TYPE type = (*record)->type;
  const int index = (*record)->index;
  if (index == 0) {
    cm.show(type, ADMIN_USER, out);
    return NO_ERROR;
  }
  const PolyConfig* stored = cm.fetch(type, index);
  if (!stored) return no_such_config();
  (*stored)->show(ADMIN_USER, out);
  return NO_ERROR;
}

int modify(std::unique_ptr<PolyConfig> holder, JsonValue* out) {
  const PolyConfig& record = *holder;
  const PolyConfig* stored = cm.fetch(record->type, record->index);
  if (!stored) return no_such_config();
  const int flag = restart_flag((*stored)->enable);

  if (const int rc = record->modify(); rc != NO_ERROR) return rc;
  if (const int rc = settle_peers(record); rc != NO_ERROR) return rc;
  record->update_disconnect_status();
  if (const int rc = cm.update(&record); rc != NO_ERROR) return rc;
  if (record->type == PPTP_SERVER_TYPE || record->type == L2TP_SERVER_TYPE)
    cm.sync_mss(record->type, &record);

  std::ignore = cm.save();  // before the restart: the scripts read the file
  std::ignore = record->do_disconnect(flag);
  if (record->enable) std::ignore = record->do_connect(flag);
  record->show(ADMIN_USER, out);
  return NO_ERROR;
}

int remove(std::unique_ptr<PolyConfig> record, JsonValue*) {
  const GlobalConfig policy;
  const TYPE type = (*record)->type;
  const int index = (*record)->index;
  const PolyConfig* stored = cm.fetch(type, index);
  if (!stored) return no_such_config();

  const int flag = restart_flag((*stored)->enable);
  (*stored)->route_nat(false);
  (*stored)->update_disconnect_status();
  std::ignore = (*stored)->do_disconnect(flag);  // the profile goes even if its tunnel does not
  (*stored)->remove();
  if (const int rc = cm.remove(stored); rc != NO_ERROR) return rc;
  std::ignore = cm.save();
  policy.disable_gateway(type, index);
  return NO_ERROR;
}

int connect(std::unique_ptr<PolyConfig> record, JsonValue* out) {
  const TYPE type = (*record)->type;
  if (is_server(type)) return ERR_WRONG_TYPE;
  const PolyConfig* stored = cm.fetch(type, (*record)->index);
  if (!stored) return no_such_config();
  if (type == WIREGUARD_CLIENT_TYPE) {
    const std::string& address = stored->cast<wireguard::ClientConfig>()->client_ip;
    if (const int rc = system::is_network_intersect(address.c_str(), "255.255.255.255");
        rc != NO_ERROR)
      return rc;
  }
  const int rc = (*stored)->connect();
  if ((*stored)->pid == 0) sleep(START_TIME);
  (*stored)->show(ADMIN_USER, out);
  return rc;
}

int disconnect(std::unique_ptr<PolyConfig> record, JsonValue* out) {
  const TYPE type = (*record)->type;
  if (is_server(type)) return ERR_WRONG_TYPE;
  const PolyConfig* stored = cm.fetch(type, (*record)->index);
  if (!stored) return no_such_config();
  const int rc = (*stored)->disconnect();
  (*stored)->show(ADMIN_USER, out);
  return rc;
}

namespace {

struct ActionRow {
  ACTION action;
  Handler handler;
  const char* option;  // as the audit trail names it; null for an action that changes nothing
};
constexpr ActionRow ACTIONS[] = {
    {ADD_ACTION, add, "--add"},
    {SHOW_ACTION, show, nullptr},
    {CONNECT_ACTION, connect, "--connect"},
    {DISCONNECT_ACTION, disconnect, "--disconnect"},
    {REMOVE_ACTION, remove, "--remove"},
    {MODIFY_ACTION, modify, "--modify"},
    {IMPORT_ACTION, import, "--import"},
};

std::string subject_of(const PolyConfig& record) {
  const bool client = is_client(record->type);
  const std::string name =
      client ? audit::percent_decoded(record.cast<config::ClientConfig>()->name) : "";
  return audit::subject_of(record->type, record->index, name);
}

int run(const ActionRow& row, std::unique_ptr<PolyConfig> record) {
  if (!row.option || !audit::is_kept()) return row.handler(std::move(record), nullptr);
  audit::Recorder recorder(audit::local_origin("ormel"), row.option, subject_of(*record));
  return recorder.finish(row.handler(std::move(record), nullptr));
}

}  // namespace

int main(int argc, char** argv) {
  // The whole pool before the options: some of them consult it.
  cm.load();
  auto record = option::get_options(argc, argv);
  if (!record->bc) return 1;
  const auto* const row = std::ranges::find(ACTIONS, (*record)->action, &ActionRow::action);
  return row == std::end(ACTIONS) ? NO_ERROR : run(*row, std::move(record));
}

namespace {

void print_document(const Json& document) {
  const CString text{json_dumps(document.get(), JSON_COMPACT)};
  if (text) std::puts(text.get());
}

void get_setting(const char* key) {
  const GlobalConfig policy;
  Json data = key ? policy.load(key) : policy.load();
  print_document(Json{json_pack("{s:o, s:i}", "data", data.release(), "error", 0)});
}

void usage() {
  print_document(Json{json_pack("{s:i}", "error", -1)});
}

}  // namespace
}  // namespace ormel

int cmd_global_opt(char*, int argc, char** argv) {
  std::string joined;
  for (int i = 0; i < argc; ++i) joined += std::string(argv[i]) + ' ';
  ORMEL_LOG(DEBUG, "argc=%d, argvs=%s", argc, joined.c_str());

  const bool get = argc >= 2 && std::strcmp(argv[1], "get") == 0;
  if (get && argc == 2) {
    ormel::get_setting(nullptr);
  } else if (get && argc == 3) {
    ormel::get_setting(argv[2]);
  } else {
    ormel::usage();
  }
  return 0;
}
