#ifndef CMD_JSON_H
#define CMD_JSON_H

#include <jansson.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <initializer_list>
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
#define TAVID_CMD_SETTINGS_DIR "/data"
#define TAVID_CMD_SETTINGS_FILE TAVID_CMD_SETTINGS_DIR "/settings.conf"
/* A store writes here first; the file then replaces the settings file whole. */
#define TAVID_CMD_SETTINGS_TMP_FILE TAVID_CMD_SETTINGS_FILE ".tmp"

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

/* The n-th word an argument takes, NULL past the last. */
typedef const char* (*cmd_json_words_t)(size_t n);

typedef struct cmd_json_arg_t {
  const char* name;
  cmd_json_put_t set;
  cmd_json_take_t get;
  uint8_t mandatory_for_set;
  /* What the description of the protocol (schema/) tells of the value; the dispatch does not
   * read them. words: only these words are taken (NULL: decimal or free text); args: an object
   * of these arguments; items: an array of objects of these arguments. */
  cmd_json_words_t words;
  const struct cmd_json_arg_t* args;
  const struct cmd_json_arg_t* items;
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

/* Owner of malloc'd text (a reply, a request buffer). */
struct free_deleter {
  void operator()(void* p) const { free(p); }
};
using text_ptr = std::unique_ptr<char, free_deleter>;

/* Owner of a stdio file opened for reading: closing it cannot lose data. */
struct file_closer {
  void operator()(FILE* f) const { (void)fclose(f); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

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

/* The value helpers of the object modules. `func` is the handler the "JSON error" warning names,
 * so that a line names the function a reader knows rather than a helper of it. */
cmd_json_err_t cmd_json_value_error(const char* func);
/* A new JSON string of `text`. */
cmd_json_err_t cmd_json_text(const char* func, const char* text, json_t** j_val);

/* Numbers travel as decimal text, never as JSON numbers: unsigned ones as "%u", signed ones as
 * "%d". Narrower types are cast by the caller, which chooses the format: a promoted uint8_t
 * would otherwise print as signed. */
#define CMD_JSON_DECIMAL_LEN 64
typedef struct cmd_json_decimal_t {
  char text[CMD_JSON_DECIMAL_LEN];
} cmd_json_decimal_t;
cmd_json_decimal_t cmd_json_decimal(uint32_t value);
cmd_json_decimal_t cmd_json_decimal(int32_t value);
template <typename T>
cmd_json_decimal_t cmd_json_decimal(T value) = delete;
cmd_json_err_t cmd_json_number(const char* func, uint32_t value, json_t** j_val);
cmd_json_err_t cmd_json_number(const char* func, int32_t value, json_t** j_val);
template <typename T>
cmd_json_err_t cmd_json_number(const char* func, T value, json_t** j_val) = delete;

/* A new object of text members, in the order given. */
typedef struct cmd_json_member_t {
  const char* key;
  const char* text;
} cmd_json_member_t;
cmd_json_err_t cmd_json_text_object(const char* func, std::initializer_list<cmd_json_member_t> members,
                                    json_t** j_val);

/* cmd_json_strargtou32 or cmd_json_strargtoi32, as the number is signed or not. */
inline cmd_json_err_t cmd_json_strargtonum(uint32_t* value, const char* s_arg, json_t* j_args) {
  return cmd_json_strargtou32(value, s_arg, j_args);
}
inline cmd_json_err_t cmd_json_strargtonum(int32_t* value, const char* s_arg, json_t* j_args) {
  return cmd_json_strargtoi32(value, s_arg, j_args);
}

/* A key the request must carry: its absence is a JSON error, and its value must be a number. */
template <typename Number>
cmd_json_err_t cmd_json_required(const char* func, Number* value, const char* key, json_t* j_args) {
  if (json_object_get(j_args, key) == NULL) return cmd_json_value_error(func);
  return cmd_json_strargtonum(value, key, j_args);
}

/* The set handler `set` and the get handler `get` of an object whose arguments are the rows of
 * `table`. */
#define CMD_JSON_TABLE_SET(set, table) \
  cmd_json_err_t set(hal_object_t* object, json_t* j_val) { return cmd_json_set_args(object, table, j_val); }
#define CMD_JSON_TABLE_GET(get, table) \
  cmd_json_err_t get(hal_object_t* object, json_t** j_val) { return cmd_json_get_args(object, table, j_val); }
#define CMD_JSON_TABLE_HANDLERS(set, get, table) CMD_JSON_TABLE_SET(set, table) CMD_JSON_TABLE_GET(get, table)

/* How every object that offers a TS (its `tsout`: the HDMI inputs and the outputs) hands it to the
 * TS handlers: a set needs an object of arguments, and an object without a TS takes and gives
 * nothing, successfully. */
template <typename T, cmd_json_put_t handler>
cmd_json_err_t cmd_json_set_tsout(hal_object_t* object, json_t* j_val) {
  if (!json_is_object(j_val)) return CMD_JSON_ARG_FRMT_ERR;
  auto* tsout = reinterpret_cast<T*>(object)->tsout;
  return tsout != NULL ? handler(&tsout->hal_object, j_val) : CMD_JSON_OK;
}

template <typename T, cmd_json_take_t handler>
cmd_json_err_t cmd_json_get_tsout(hal_object_t* object, json_t** j_val) {
  auto* tsout = reinterpret_cast<T*>(object)->tsout;
  return tsout != NULL ? handler(&tsout->hal_object, j_val) : CMD_JSON_OK;
}

/* The set handler `set` and the get handler `get` of the TS of an object of type `T`, over the TS
 * handlers `ts_set` and `ts_get`. */
#define CMD_JSON_TSOUT_HANDLERS(T, set, get, ts_set, ts_get) \
  cmd_json_err_t set(hal_object_t* object, json_t* j_val) {  \
    return cmd_json_set_tsout<T, ts_set>(object, j_val);     \
  }                                                          \
  cmd_json_err_t get(hal_object_t* object, json_t** j_val) { \
    return cmd_json_get_tsout<T, ts_get>(object, j_val);     \
  }

/* The settings file and the reset levels: execute handlers of their rows. */
cmd_json_err_t cmd_store_settings(hal_object_t* hal_object, json_t* j_val);
cmd_json_err_t cmd_restore_settings(hal_object_t* hal_object, json_t* j_val);
cmd_json_err_t cmd_reset(hal_object_t* hal_object, json_t* j_val);
/* The key of a reset, "level", and the levels it takes. */
extern const cmd_json_arg_t cmd_json_reset_args[];

/* Ends a store whose records went to `tmp`, opened on the temporary settings file, and whose
 * result so far is `err`: closes it and, when everything succeeded, puts it on the disk and in
 * place of the settings file. A failure up to that point removes the temporary file and leaves
 * the settings file as it was. Returns the store's result. */
cmd_json_err_t cmd_store_replace(FILE* tmp, cmd_json_err_t err);

#endif
