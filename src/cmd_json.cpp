#include "cmd_json.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "boxroot.h"
#include "cmd_json_device.h"
#include "cmd_json_input_hdmi.h"
#include "cmd_json_output_ip.h"
#include "cmd_json_output_rf.h"
#include "dbg.h"
#include "utf8.h"

#define CMD_JSON_DESCRIPTION_LEN 1024
#define CMD_JSON_ID_LEN 32
#define CMD_JSON_DUMP_FLAGS (JSON_COMPACT | JSON_PRESERVE_ORDER)

const char* cmd_json_s_action = NULL;
const char* cmd_json_s_object = NULL;
const char* cmd_json_s_arg = NULL;

cmd_json_object_t cmd_json_objects[CMD_JSON_OBJECT_COUNT] = {
    {"device_status", HAL_DEVICE, "device_id", NULL, cmd_json_get_device_status, NULL, NULL},
    {"device", HAL_DEVICE, "device_id", NULL, cmd_json_get_device, cmd_json_execute_device,
     cmd_json_get_device},
    {"input_hdmi", HAL_INPUT_HDMI, "input_id", cmd_json_set_input_hdmi_ext, cmd_json_get_input_hdmi_ext, NULL,
     cmd_json_get_input_hdmi_ext},
    {"input_hdmi_enc", HAL_INPUT_HDMI, "input_id", cmd_json_set_input_hdmi_enc, cmd_json_get_input_hdmi_enc,
     NULL, NULL},
    {"input_hdmi_ts", HAL_INPUT_HDMI, "input_id", cmd_json_set_input_hdmi_ts, cmd_json_get_input_hdmi_ts,
     NULL, NULL},
    {"input_hdmi_services", HAL_INPUT_HDMI, "input_id", cmd_json_set_input_hdmi_service,
     cmd_json_get_input_hdmi_services, NULL, NULL},
    {"input_hdmi_streams", HAL_INPUT_HDMI, "input_id", cmd_json_set_input_hdmi_stream,
     cmd_json_get_input_hdmi_streams, NULL, NULL},
    {"input_hdmi_status", HAL_INPUT_HDMI, "input_id", NULL, cmd_json_get_input_hdmi_status, NULL, NULL},
    {"debug_code", HAL_INPUT_HDMI, "id", cmd_json_set_input_hdmi_hw_debug_code,
     cmd_json_get_input_hdmi_hw_debug_code, NULL, NULL},
    {"output_calibration", HAL_OUTPUT_RF, "output_id", cmd_json_set_output_rf_cal, cmd_json_get_output_rf_cal,
     NULL, NULL},
    {"output_rf", HAL_OUTPUT_RF, "output_id", cmd_json_set_output_rf_ext, cmd_json_get_output_rf_ext, NULL,
     cmd_json_get_output_rf_ext},
    {"output_rf_mod", HAL_OUTPUT_RF, "output_id", cmd_json_set_output_rf_mod, cmd_json_get_output_rf_mod,
     NULL, NULL},
    {"output_rf_ts", HAL_OUTPUT_RF, "output_id", cmd_json_set_output_rf_ts, cmd_json_get_output_rf_ts, NULL,
     NULL},
    {"output_rf_services", HAL_OUTPUT_RF, "output_id", cmd_json_set_output_rf_service,
     cmd_json_get_output_rf_services, NULL, NULL},
    {"output_rf_status", HAL_OUTPUT_RF, "output_id", NULL, cmd_json_get_output_rf_status, NULL, NULL},
    {"output_ip", HAL_OUTPUT_IP, "output_id", cmd_json_set_output_ip_ext, cmd_json_get_output_ip_ext, NULL,
     cmd_json_get_output_ip_ext},
    {"output_ip_dst", HAL_OUTPUT_IP, "output_id", cmd_json_set_output_ip_dst, cmd_json_get_output_ip_dst,
     NULL, NULL},
    {"output_ip_ts", HAL_OUTPUT_IP, "output_id", cmd_json_set_output_ip_ts, cmd_json_get_output_ip_ts, NULL,
     NULL},
    {"output_ip_services", HAL_OUTPUT_IP, "output_id", cmd_json_set_output_ip_service,
     cmd_json_get_output_ip_services, NULL, NULL},
    {"output_ip_status", HAL_OUTPUT_IP, "output_id", NULL, cmd_json_get_output_ip_status, NULL, NULL},
    {"output_ip_ifconfig", HAL_NONE, NULL, cmd_json_set_output_ip_ifconfig, cmd_json_get_output_ip_ifconfig,
     NULL, NULL},
    {"store_settings", HAL_NONE, NULL, NULL, NULL, cmd_store_settings, NULL},
    {"restore_settings", HAL_NONE, NULL, NULL, NULL, cmd_restore_settings, NULL},
    {"reset", HAL_NONE, NULL, NULL, NULL, cmd_reset, NULL},
};

namespace {

const char* cmd_json_name(const char* name) { return name != NULL ? name : "(null)"; }

/* Skips what strtoul skips before the sign, to tell a negated number apart. */
int cmd_json_is_negative(const char* text) {
  while (*text == ' ' || (*text >= '\t' && *text <= '\r')) text++;
  return *text == '-';
}

/* Adds the id key to every object of an array, or to the object itself. */
cmd_json_err_t cmd_json_tag(json_t* value, const char* id_key, const char* id) {
  if (json_is_array(value)) {
    size_t i;
    json_t* element;
    json_array_foreach(value, i, element) {
      if (json_is_object(element) && json_object_set_new(element, id_key, json_string(id)) != 0)
        return cmd_json_value_error("cmd_json_handler");
    }
    return CMD_JSON_OK;
  }
  if (json_object_set_new(value, id_key, json_string(id)) != 0)
    return cmd_json_value_error("cmd_json_handler");
  return CMD_JSON_OK;
}

cmd_json_err_t cmd_json_reply_set(json_t* reply, const char* key, json_t* value) {
  if (json_object_set_new(reply, key, value) != 0) return cmd_json_value_error("cmd_json_handler");
  return CMD_JSON_OK;
}

/* A get of one instance: an object goes under "result", an array under "arrayedResult". */
cmd_json_err_t cmd_json_get_one(json_t* reply, const cmd_json_object_t* row, hal_object_t* object,
                                uint32_t object_id) {
  json_t* raw = NULL;
  cmd_json_err_t err = row->get(object, &raw);
  json_ptr value(raw);
  if (err != CMD_JSON_OK) return err;
  if (!json_is_array(value.get()) && !json_is_object(value.get())) return CMD_JSON_RPL_FRMT_ERR;
  if (row->hal_type != HAL_NONE) {
    char id[CMD_JSON_ID_LEN];
    snprintf(id, sizeof(id), "%u", object_id);
    err = cmd_json_tag(value.get(), row->id, id);
    if (err != CMD_JSON_OK) return err;
  }
  const char* key = json_is_array(value.get()) ? "arrayedResult" : "result";
  return cmd_json_reply_set(reply, key, value.release());
}

cmd_json_err_t cmd_json_append(json_t* results, json_t* value) {
  int rc = json_is_array(value) ? json_array_extend(results, value) : json_array_append(results, value);
  if (rc != 0) return cmd_json_value_error("cmd_json_handler");
  return CMD_JSON_OK;
}

/* A get whose instance was not found answers for every instance of the kind. The look-up's
 * error stands only when no instance answered. */
cmd_json_err_t cmd_json_get_all(json_t* reply, const cmd_json_object_t* row, cmd_json_err_t err) {
  json_ptr results(json_array());
  if (!results) return cmd_json_value_error("cmd_json_handler");
  for (uint32_t n = 0; n < hal_object_count_by_type(row->hal_type); n++) {
    hal_object_t* object = hal_object_by_type(row->hal_type, n);
    if (object == NULL) continue;
    json_t* raw = NULL;
    err = row->get(object, &raw);
    json_ptr value(raw);
    if (err != CMD_JSON_OK) return err;
    char id[CMD_JSON_ID_LEN];
    snprintf(id, sizeof(id), "%u", n);
    if (json_is_object(value.get()) || json_is_array(value.get())) {
      err = cmd_json_tag(value.get(), row->id, id);
      if (err != CMD_JSON_OK) return err;
    }
    err = cmd_json_append(results.get(), value.get());
    if (err != CMD_JSON_OK) return err;
  }
  if (err != CMD_JSON_OK) return err;
  return cmd_json_reply_set(reply, "arrayedResult", results.release());
}

cmd_json_err_t cmd_json_get(json_t* reply, const cmd_json_object_t* row, json_t* j_args) {
  if (!json_is_object(j_args)) return CMD_JSON_ARGS_FRMT_ERR;
  hal_object_t* object = NULL;
  uint32_t object_id = 0;
  cmd_json_err_t err = cmd_json_get_hal_object(&object, row, j_args, &object_id);
  if (err == CMD_JSON_OK) return cmd_json_get_one(reply, row, object, object_id);
  return cmd_json_get_all(reply, row, err);
}

/* One "set" or "execute" on the instance its arguments name. */
cmd_json_err_t cmd_json_put_one(const cmd_json_object_t* row, cmd_json_put_t handler, json_t* j_args,
                                int store) {
  hal_object_t* object = NULL;
  cmd_json_err_t err = cmd_json_get_hal_object(&object, row, j_args, NULL);
  if (err != CMD_JSON_OK) return err;
  err = handler(object, j_args);
  if (err != CMD_JSON_OK) return err;
  /* Every accepted change is persisted at once, except while the settings are being replayed. */
  if (store && !flag_restoring) return cmd_store_settings(NULL, NULL);
  return CMD_JSON_OK;
}

/* "arrayedArgs" element by element (stopping at the first error, earlier ones stay applied),
 * or "args" once. */
cmd_json_err_t cmd_json_put(const cmd_json_object_t* row, cmd_json_put_t handler, json_t* j_args,
                            json_t* j_arrayed_args, int store) {
  if (json_is_array(j_arrayed_args) && j_args == NULL) {
    size_t i;
    json_t* element;
    json_array_foreach(j_arrayed_args, i, element) {
      cmd_json_err_t err = cmd_json_put_one(row, handler, element, store);
      if (err != CMD_JSON_OK) return err;
    }
    return CMD_JSON_OK;
  }
  if (json_is_object(j_args) && j_arrayed_args == NULL) return cmd_json_put_one(row, handler, j_args, store);
  return CMD_JSON_ARGS_FRMT_ERR;
}

cmd_json_err_t cmd_json_dispatch(json_t* reply, json_t* request) {
  cmd_json_s_action = json_string_value(json_object_get(request, "action"));
  if (cmd_json_s_action == NULL) return CMD_JSON_ACT_FRMT_ERR;
  json_t* j_args = json_object_get(request, "args");
  json_t* j_arrayed_args = json_object_get(request, "arrayedArgs");
  if (j_args == NULL && j_arrayed_args == NULL) return CMD_JSON_ARGS_FRMT_ERR;
  cmd_json_s_object = json_string_value(json_object_get(request, "object"));
  if (cmd_json_s_object == NULL) return CMD_JSON_OBJ_FRMT_ERR;
  const cmd_json_object_t* row = cmd_json_object_by_name(cmd_json_s_object);
  if (row == NULL) return CMD_JSON_OBJ_UNKNOWN;
  /* An action the row does not offer falls through to the next comparison. */
  if (strcmp(cmd_json_s_action, "set") == 0 && row->set != NULL)
    return cmd_json_put(row, row->set, j_args, j_arrayed_args, 1);
  if (strcmp(cmd_json_s_action, "get") == 0 && row->get != NULL) return cmd_json_get(reply, row, j_args);
  if (strcmp(cmd_json_s_action, "execute") == 0 && row->execute != NULL)
    return cmd_json_put(row, row->execute, j_args, j_arrayed_args, 0);
  return CMD_JSON_ACT_UNKNOWN;
}

char* cmd_json_dump(json_t* value) { return value != NULL ? json_dumps(value, CMD_JSON_DUMP_FLAGS) : NULL; }

/* The reply object on success; otherwise the error or warning alone (the partial reply is
 * dropped). NULL when even that cannot be serialised. */
char* cmd_json_reply_text(json_t* reply, cmd_json_err_t err) {
  if (err == CMD_JSON_OK) return cmd_json_dump(reply);
  json_ptr jerror(cmd_json_jerror(err));
  return cmd_json_dump(jerror.get());
}

}  // namespace

const cmd_json_object_t* cmd_json_object_by_name(const char* name) {
  for (const cmd_json_object_t& row : cmd_json_objects) {
    if (strcmp(row.name, name) == 0) return &row;
  }
  return NULL;
}

cmd_json_err_t cmd_json_get_hal_object(hal_object_t** out, const cmd_json_object_t* row, json_t* j_args,
                                       uint32_t* object_id) {
  if (row == NULL) return CMD_JSON_OBJ_UNKNOWN;
  if (row->hal_type == HAL_NONE) {
    *out = NULL;
    return CMD_JSON_OK;
  }
  uint32_t id = 0;
  if (cmd_json_strargtou32(&id, row->id, j_args) != CMD_JSON_OK) {
    cmd_json_s_arg = row->id;
    return CMD_JSON_ARG_MANDATORY;
  }
  if (object_id != NULL) *object_id = id;
  *out = hal_object_by_type(row->hal_type, id);
  if (*out == NULL) {
    cmd_json_s_arg = row->id;
    return CMD_JSON_ARG_OOB;
  }
  return CMD_JSON_OK;
}

char* cmd_json_handler(char* s_cmd) {
  json_ptr reply(json_object());
  if (!reply) return cmd_json_reply_text(NULL, cmd_json_value_error(__func__));
  json_error_t error;
  json_ptr request(json_loads(s_cmd, JSON_DISABLE_EOF_CHECK, &error));
  cmd_json_err_t err =
      json_is_object(request.get()) ? cmd_json_dispatch(reply.get(), request.get()) : CMD_JSON_FRMT_ERR;
  char* text = cmd_json_reply_text(reply.get(), err);
  cmd_json_s_action = cmd_json_s_object = NULL; /* they pointed into the request */
  return text;
}

cmd_json_err_t cmd_json_set_args(hal_object_t* object, const cmd_json_arg_t* args, json_t* j_args) {
  for (const cmd_json_arg_t* arg = args; arg->name != NULL; arg++) {
    cmd_json_s_arg = arg->name;
    json_t* value = json_object_get(j_args, arg->name);
    if (value == NULL && arg->mandatory_for_set) return CMD_JSON_ARG_MANDATORY;
    if (value == NULL || arg->set == NULL) continue;
    cmd_json_err_t err = arg->set(object, value);
    if (err != CMD_JSON_OK) return err;
  }
  return CMD_JSON_OK;
}

cmd_json_err_t cmd_json_get_args(hal_object_t* object, const cmd_json_arg_t* args, json_t** j_args) {
  *j_args = json_object();
  if (*j_args == NULL) return cmd_json_value_error(__func__);
  for (const cmd_json_arg_t* arg = args; arg->name != NULL; arg++) {
    if (arg->get == NULL) continue;
    cmd_json_s_arg = arg->name;
    json_t* raw = NULL;
    cmd_json_err_t err = arg->get(object, &raw);
    json_ptr value(raw);
    if (err != CMD_JSON_OK) return err;
    if (json_object_set(*j_args, arg->name, value.get()) != 0) return cmd_json_value_error(__func__);
  }
  return CMD_JSON_OK;
}

uint32_t cmd_json_strtou32(const char* text, char** end, int base) {
  errno = 0;
  unsigned long long value = strtoull(text, end, base);
  unsigned long long magnitude = cmd_json_is_negative(text) ? 0ULL - value : value;
  if (errno == ERANGE || magnitude > UINT32_MAX) return UINT32_MAX;
  return static_cast<uint32_t>(value);
}

int32_t cmd_json_strtoi32(const char* text, char** end, int base) {
  long long value = strtoll(text, end, base);
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

/* The argument is j_args itself when that is a string, else its member s_arg. The number is
 * stored even when the text is not one. */
static const char* cmd_json_strarg(const char* s_arg, json_t* j_args) {
  if (json_is_string(j_args)) return json_string_value(j_args);
  if (s_arg == NULL) return NULL;
  return json_string_value(json_object_get(j_args, s_arg));
}

template <typename T, T (*convert)(const char*, char**, int)>
static cmd_json_err_t cmd_json_strargto(T* out, const char* s_arg, json_t* j_args) {
  const char* text = cmd_json_strarg(s_arg, j_args);
  if (text == NULL) return CMD_JSON_ARG_NOT_FOUND;
  char* end = NULL;
  *out = convert(text, &end, 0);
  return (*end == '\0') ? CMD_JSON_OK : CMD_JSON_ARG_FRMT_ERR;
}

cmd_json_err_t cmd_json_strargtou32(uint32_t* u32_arg, const char* s_arg, json_t* j_args) {
  return cmd_json_strargto<uint32_t, cmd_json_strtou32>(u32_arg, s_arg, j_args);
}

cmd_json_err_t cmd_json_strargtoi32(int32_t* i32_arg, const char* s_arg, json_t* j_args) {
  return cmd_json_strargto<int32_t, cmd_json_strtoi32>(i32_arg, s_arg, j_args);
}

cmd_json_err_t cmd_json_translate_hal_err(hal_err_t err) {
  return err == HAL_OK ? CMD_JSON_OK : CMD_JSON_UNSUCCESSFUL;
}

namespace {
struct cmd_json_jerror_row_t {
  cmd_json_err_t err;
  int is_error;
  const char* format;
  const char* const* name; /* the global the description names, if any */
};

const cmd_json_jerror_row_t cmd_json_jerrors[] = {
    {CMD_JSON_ERR, 0, "JSON error", NULL},
    {CMD_JSON_FRMT_ERR, 1, "JSON command is invalid (JSON object)", NULL},
    {CMD_JSON_ACT_FRMT_ERR, 1, "JSON command requires a valid action (JSON string)", NULL},
    {CMD_JSON_ACT_UNKNOWN, 1, "JSON command has an unknown action (%s)", &cmd_json_s_action},
    {CMD_JSON_OBJ_FRMT_ERR, 1, "JSON command requires a valid object (JSON string)", NULL},
    {CMD_JSON_OBJ_UNKNOWN, 1, "JSON command has an unknown object (%s)", &cmd_json_s_object},
    {CMD_JSON_ARGS_FRMT_ERR, 1, "JSON command requires valid arguments (JSON object)", NULL},
    {CMD_JSON_ARG_FRMT_ERR, 1, "JSON command has an invalid argument (%s)", &cmd_json_s_arg},
    {CMD_JSON_ARG_OOB, 1, "JSON command argument out of bounds (%s)", &cmd_json_s_arg},
    {CMD_JSON_ARG_NOT_FOUND, 1, "JSON command argument not found (%s)", &cmd_json_s_arg},
    {CMD_JSON_ARG_MANDATORY, 1, "JSON command is missing a mandatory argument (%s)", &cmd_json_s_arg},
};

json_t* cmd_json_pack_jerror(int is_error, const char* description) {
  if (is_error)
    return json_pack("{s:i, s:s}", "errorCode", ERROR_REQUEST_BADLY_FORMATTED, "description", description);
  return json_pack("{s:i, s:s}", "warningCode", WARNING_COMMAND_UNSUCCESSFUL, "description", description);
}
}  // namespace

json_t* cmd_json_jerror(cmd_json_err_t err) {
  if (err == CMD_JSON_OK) return NULL;
  char description[CMD_JSON_DESCRIPTION_LEN];
  for (const cmd_json_jerror_row_t& row : cmd_json_jerrors) {
    if (row.err != err) continue;
    if (row.name != NULL) {
      int length = snprintf(description, sizeof(description), row.format, cmd_json_name(*row.name));
      /* A long name is cut between characters, so that the description stays valid UTF-8. */
      if (length > 0)
        description[utf8_cut(description, static_cast<size_t>(length), sizeof(description) - 1)] = '\0';
    } else {
      snprintf(description, sizeof(description), "%s", row.format);
    }
    return cmd_json_pack_jerror(row.is_error, description);
  }
  snprintf(description, sizeof(description), "JSON command unsuccessful (error: %d)", static_cast<int>(err));
  return cmd_json_pack_jerror(0, description);
}

cmd_json_err_t cmd_json_value_error(const char* func) {
  DBG_WRN_AT(func, "JSON error");
  return CMD_JSON_ERR;
}

/* A text that is not valid UTF-8 (a corrupted module's name) is answered with U+FFFD in place of
 * each invalid byte, so that neither the reply nor the settings file fails on it. The check is
 * Jansson's own, so the text is not checked a second time. */
static json_t* cmd_json_string(const char* text) {
  const size_t length = strlen(text);
  if (utf8_valid_length(text, length) == length) return json_stringn_nocheck(text, length);
  text_ptr repaired(static_cast<char*>(malloc(UTF8_REPLACEMENT_LEN * length + 1)));
  if (!repaired) return NULL;
  return json_stringn_nocheck(repaired.get(), utf8_repair(repaired.get(), text, length));
}

cmd_json_err_t cmd_json_text(const char* func, const char* text, json_t** j_val) {
  *j_val = cmd_json_string(text);
  return *j_val != NULL ? CMD_JSON_OK : cmd_json_value_error(func);
}

cmd_json_decimal_t cmd_json_decimal(uint32_t value) {
  cmd_json_decimal_t decimal;
  snprintf(decimal.text, sizeof(decimal.text), "%u", value);
  return decimal;
}

cmd_json_decimal_t cmd_json_decimal(int32_t value) {
  cmd_json_decimal_t decimal;
  snprintf(decimal.text, sizeof(decimal.text), "%d", value);
  return decimal;
}

cmd_json_err_t cmd_json_number(const char* func, uint32_t value, json_t** j_val) {
  return cmd_json_text(func, cmd_json_decimal(value).text, j_val);
}

cmd_json_err_t cmd_json_number(const char* func, int32_t value, json_t** j_val) {
  return cmd_json_text(func, cmd_json_decimal(value).text, j_val);
}

cmd_json_err_t cmd_json_text_object(const char* func, std::initializer_list<cmd_json_member_t> members,
                                    json_t** j_val) {
  json_ptr result(json_object());
  if (!result) return cmd_json_value_error(func);
  for (const cmd_json_member_t& member : members) {
    if (json_object_set_new(result.get(), member.key, json_string(member.text)) != 0)
      return cmd_json_value_error(func);
  }
  *j_val = result.release();
  return CMD_JSON_OK;
}

/* Settings persistence: one compact "set" request per stored instance, each followed by "\n\r". */

uint8_t flag_restoring = 0;

namespace {
#define CMD_JSON_STORE_ID_LEN 4

const char* cmd_settings_path(char* buf, size_t size) {
  return boxroot_path(buf, size, TAVID_CMD_SETTINGS_FILE);
}

cmd_json_err_t cmd_store_record(FILE* file, const cmd_json_object_t* row, hal_object_t* object, uint32_t n) {
  json_t* raw = NULL;
  cmd_json_err_t err = row->store(object, &raw);
  json_ptr args(raw);
  if (err != CMD_JSON_OK) return err;
  char id[CMD_JSON_STORE_ID_LEN];
  if (snprintf(id, sizeof(id), "%u", n) > CMD_JSON_STORE_ID_LEN - 1 ||
      json_object_set_new(args.get(), row->id, json_string(id)) != 0) {
    DBG_WRN_AT("cmd_store_settings", "String exceeds limits...");
    return CMD_JSON_ERR;
  }
  json_ptr record(json_pack("{s:s,s:s,s:o}", "action", "set", "object", row->name, "args", args.release()));
  text_ptr text(cmd_json_dump(record.get()));
  if (!text) {
    DBG_WRN_AT("cmd_store_settings", "JSON error...");
    return CMD_JSON_ERR;
  }
  return fprintf(file, "%s\n\r", text.get()) < 0 ? CMD_JSON_FILE_ERR : CMD_JSON_OK;
}

cmd_json_err_t cmd_store_records(FILE* file) {
  for (const cmd_json_object_t& row : cmd_json_objects) {
    if (row.store == NULL) continue;
    hal_object_t* object;
    for (uint32_t n = 0; (object = hal_object_by_type(row.hal_type, n)) != NULL; n++) {
      cmd_json_err_t err = cmd_store_record(file, &row, object, n);
      if (err != CMD_JSON_OK) return err;
    }
  }
  return CMD_JSON_OK;
}

/* The records reach the disk before the file takes the settings file's name. A full disk may show
 * only here, when the buffered records are written out. */
bool cmd_store_flush(FILE* tmp) {
  const bool flushed = fflush(tmp) == 0 && ferror(tmp) == 0 && fsync(fileno(tmp)) == 0;
  return fclose(tmp) == 0 && flushed;
}

/* The rename replaces the settings file in one step, so that a reader (the restore at the next
 * start) finds the old file or the new one, whole; the directory is then synced so that the new
 * name survives a power cut. The directory is opened first: a settings file that cannot be
 * replaced fails the store before anything changed. */
cmd_json_err_t cmd_store_rename(const char* tmp_path) {
  char path[BOXROOT_PATH_LEN];
  char dir_path[BOXROOT_PATH_LEN];
  const int dir = open(boxroot_path(dir_path, sizeof(dir_path), TAVID_CMD_SETTINGS_DIR),
                       O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0 || rename(tmp_path, cmd_settings_path(path, sizeof(path))) != 0) {
    if (dir >= 0) (void)close(dir);
    (void)remove(tmp_path);
    DBG_WRN_AT("cmd_store_settings", "Could not open settings file for storing...");
    return CMD_JSON_FILE_ERR;
  }
  /* The new file is in place; a directory that does not sync leaves it unconfirmed on the disk. */
  const bool synced = fsync(dir) == 0;
  (void)close(dir);
  return synced ? CMD_JSON_OK : CMD_JSON_FILE_ERR;
}

/* Replays one record; anything but "{}" is reported and the restore goes on. */
cmd_json_err_t cmd_restore_record(json_t* record) {
  text_ptr request(cmd_json_dump(record));
  if (!request) {
    DBG_WRN_AT("cmd_restore_settings", "JSON error...");
    return CMD_JSON_ERR;
  }
  text_ptr reply(cmd_json_handler(request.get()));
  if (!reply || strcmp(reply.get(), "{}") != 0)
    DBG_WRN_AT("cmd_restore_settings", "Could not restore: %s", request.get());
  return CMD_JSON_OK;
}
}  // namespace

cmd_json_err_t cmd_store_settings(hal_object_t*, json_t*) {
  char tmp_path[BOXROOT_PATH_LEN];
  boxroot_path(tmp_path, sizeof(tmp_path), TAVID_CMD_SETTINGS_TMP_FILE);
  DBG_MSG("Storing settings... (%s)", TAVID_CMD_SETTINGS_FILE);
  /* A temporary file left by a power cut is simply truncated here; a restore never reads it. */
  FILE* tmp = fopen(tmp_path, "we");
  if (tmp == NULL) {
    DBG_WRN("Could not open settings file for storing...");
    return CMD_JSON_FILE_ERR;
  }
  return cmd_store_replace(tmp, cmd_store_records(tmp));
}

cmd_json_err_t cmd_store_replace(FILE* tmp, cmd_json_err_t err) {
  char tmp_path[BOXROOT_PATH_LEN];
  boxroot_path(tmp_path, sizeof(tmp_path), TAVID_CMD_SETTINGS_TMP_FILE);
  if (!cmd_store_flush(tmp) && err == CMD_JSON_OK) err = CMD_JSON_FILE_ERR;
  if (err == CMD_JSON_OK) return cmd_store_rename(tmp_path);
  (void)remove(tmp_path);
  return err;
}

cmd_json_err_t cmd_restore_settings(hal_object_t*, json_t*) {
  char path[BOXROOT_PATH_LEN];
  cmd_settings_path(path, sizeof(path));
  DBG_MSG("Restoring settings... (%s)", TAVID_CMD_SETTINGS_FILE);
  /* A restore request inside the settings file would otherwise replay the file for ever. */
  if (flag_restoring) return CMD_JSON_UNSUCCESSFUL;
  flag_restoring = 1;
  file_ptr file(fopen(path, "re"));
  if (!file) {
    DBG_WRN("Could not open settings file for restoring...");
    flag_restoring = 0;
    return CMD_JSON_FILE_ERR;
  }
  cmd_json_err_t err = CMD_JSON_OK;
  for (;;) {
    json_error_t error;
    json_ptr record(json_loadf(file.get(), JSON_DISABLE_EOF_CHECK, &error));
    if (!record) {
      /* End of file, or a record that does not parse: what came before stays applied. */
      if (ferror(file.get())) {
        DBG_WRN("Error while reading settings file...");
        err = CMD_JSON_FILE_ERR;
      }
      break;
    }
    err = cmd_restore_record(record.get());
    if (err != CMD_JSON_OK) break;
  }
  flag_restoring = 0;
  return err;
}

namespace {
constexpr const char* cmd_reset_level0[] = {"reboot", NULL};
constexpr const char* cmd_reset_level1[] = {"rm -rf /data/interface.eth0 /data/network.conf", "reboot", NULL};
constexpr const char* cmd_reset_level2[] = {
    "rm -rf /data/settings.conf /data/interface.eth1 /data/network_eth1.conf", "reboot", NULL};
constexpr const char* cmd_reset_level3[] = {"rm -rf /data/*", "reboot", NULL};
constexpr const char* const* cmd_reset_levels[] = {cmd_reset_level0, cmd_reset_level1, cmd_reset_level2,
                                                   cmd_reset_level3};
constexpr const char* cmd_reset_level_names[] = {"0", "1", "2", "3"};

const char* cmd_reset_level_word(size_t n) {
  return n < sizeof(cmd_reset_level_names) / sizeof(cmd_reset_level_names[0]) ? cmd_reset_level_names[n]
                                                                              : NULL;
}

}  // namespace

const cmd_json_arg_t cmd_json_reset_args[] = {
    {"level", NULL, NULL, 1, cmd_reset_level_word},
    {NULL, NULL, NULL, 0},
};

cmd_json_err_t cmd_reset(hal_object_t*, json_t* j_val) {
  const char* level = json_string_value(json_object_get(j_val, cmd_json_reset_args[0].name));
  if (level == NULL) return CMD_JSON_ARG_MANDATORY;
  for (size_t i = 0; i < sizeof(cmd_reset_levels) / sizeof(cmd_reset_levels[0]); i++) {
    if (strcmp(level, cmd_reset_level_names[i]) != 0) continue;
    for (const char* const* command = cmd_reset_levels[i]; *command != NULL; command++) {
      if (boxroot_system(*command) != 0) return CMD_JSON_UNSUCCESSFUL;
    }
    return CMD_JSON_OK;
  }
  return CMD_JSON_ARG_OOB;
}
