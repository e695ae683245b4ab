#ifndef CMD_JSON_H
#define CMD_JSON_H

#include <jansson.h>
#include <stdint.h>

#include <memory>

#include "hal.h"

typedef enum cmd_json_err_t : int {
  CMD_JSON_OK = 0,
  CMD_JSON_ERR = 1,
  CMD_JSON_FRMT_ERR = 2,
  CMD_JSON_ACT_FRMT_ERR = 3,
  CMD_JSON_ACT_UNKNOWN = 4,
  CMD_JSON_OBJ_FRMT_ERR = 5,
  CMD_JSON_OBJ_UNKNOWN = 6,
  CMD_JSON_ARGS_FRMT_ERR = 7,
  CMD_JSON_RPL_FRMT_ERR = 8,
  CMD_JSON_ARG_FRMT_ERR = 9,
  CMD_JSON_ARG_OOB = 10,
  CMD_JSON_ARG_NOT_FOUND = 11,
  CMD_JSON_ARG_MANDATORY = 12,
  CMD_JSON_UNSUCCESSFUL = 13,
  CMD_JSON_FILE_ERR = 14,
} cmd_json_err_t;

#define ERROR_REQUEST_BADLY_FORMATTED 5002
#define IFW_TIMEOUT 1101
#define ERROR_OUTPUT_NOT_AS_EXPECTED 1102
#define WARNING_COMMAND_UNSUCCESSFUL 1103

#define CMD_JSON_OBJECT_COUNT 24
#define TAVID_CMD_SETTINGS_FILE "/data/settings.conf"

/* set and execute take the request's arguments; get and store hand back a new value. */
typedef cmd_json_err_t (*cmd_json_put_t)(hal_object_t* object, json_t* j_val);
typedef cmd_json_err_t (*cmd_json_take_t)(hal_object_t* object, json_t** j_val);

typedef struct cmd_json_object_t {
  const char* name;
  hal_object_type_t hal_type;
  const char* id;
  cmd_json_put_t set;
  cmd_json_take_t get;
  cmd_json_put_t execute;
  cmd_json_take_t store;
} cmd_json_object_t;

typedef struct cmd_json_arg_t {
  const char* name;
  cmd_json_put_t set;
  cmd_json_take_t get;
  uint8_t mandatory_for_set;
} cmd_json_arg_t;

extern cmd_json_object_t cmd_json_objects[CMD_JSON_OBJECT_COUNT];
extern const char* cmd_json_s_action;
extern const char* cmd_json_s_object;
extern const char* cmd_json_s_arg;
extern uint8_t flag_restoring;

/* Owner of one Jansson reference. */
struct json_deleter {
  void operator()(json_t* json) const { json_decref(json); }
};
using json_ptr = std::unique_ptr<json_t, json_deleter>;

char* cmd_json_handler(char* s_cmd);
cmd_json_err_t cmd_json_set_args(hal_object_t* object, const cmd_json_arg_t* args, json_t* j_args);
cmd_json_err_t cmd_json_get_args(hal_object_t* object, const cmd_json_arg_t* args, json_t** j_args);
cmd_json_err_t cmd_json_strargtou32(uint32_t* u32_arg, const char* s_arg, json_t* j_args);
cmd_json_err_t cmd_json_strargtoi32(int32_t* i32_arg, const char* s_arg, json_t* j_args);
cmd_json_err_t cmd_json_translate_hal_err(hal_err_t err);

/* strtoul and strtol as they behave on the box, where long is 32 bits wide: out-of-range text
 * saturates, and a minus sign negates in 32 bits. The host build gives the same numbers. */
uint32_t cmd_json_strtou32(const char* text, char** end, int base);
int32_t cmd_json_strtoi32(const char* text, char** end, int base);

const cmd_json_object_t* cmd_json_object_by_name(const char* name);
cmd_json_err_t cmd_json_get_hal_object(hal_object_t** out, const cmd_json_object_t* row, json_t* j_args,
                                       uint32_t* object_id);
json_t* cmd_json_jerror(cmd_json_err_t err);

/* The settings file and the reset levels: execute handlers of their rows. */
cmd_json_err_t cmd_store_settings(hal_object_t* hal_object, json_t* j_val);
cmd_json_err_t cmd_restore_settings(hal_object_t* hal_object, json_t* j_val);
cmd_json_err_t cmd_reset(hal_object_t* hal_object, json_t* j_val);

#endif
