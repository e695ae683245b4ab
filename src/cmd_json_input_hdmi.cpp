#include "cmd_json_input_hdmi.h"

#include <stdio.h>

#include <initializer_list>

#include "cmd_json_ts.h"
#include "dbg.h"
#include "hal_input_hdmi.h"

#define CMD_JSON_INPUT_HDMI_VALUE_LEN 64
#define CMD_JSON_INPUT_HDMI_LOCK_LEN 10
/* A get request has no way to name a code: it always reports this one. */
#define CMD_JSON_INPUT_HDMI_DEBUG_CODE 50

namespace {

hal_input_hdmi_t* cmd_json_hdmi(hal_object_t* object) { return reinterpret_cast<hal_input_hdmi_t*>(object); }

cmd_json_err_t cmd_json_input_hdmi_json_error(const char* func) {
  DBG_WRN_AT(func, "JSON error");
  return CMD_JSON_ERR;
}

struct cmd_json_input_hdmi_member_t {
  const char* key;
  const char* text;
};

/* A new object of text members, in the order given. */
cmd_json_err_t cmd_json_input_hdmi_object(const char* func,
                                          std::initializer_list<cmd_json_input_hdmi_member_t> members,
                                          json_t** j_val) {
  json_ptr result(json_object());
  if (!result) return cmd_json_input_hdmi_json_error(func);
  for (const cmd_json_input_hdmi_member_t& member : members) {
    if (json_object_set_new(result.get(), member.key, json_string(member.text)) != 0)
      return cmd_json_input_hdmi_json_error(func);
  }
  *j_val = result.release();
  return CMD_JSON_OK;
}

/* A key the request must carry: its absence is a JSON error, and its value must be a number. */
cmd_json_err_t cmd_json_input_hdmi_required(const char* func, uint32_t* value, const char* key,
                                            json_t* j_args) {
  if (json_object_get(j_args, key) == NULL) return cmd_json_input_hdmi_json_error(func);
  return cmd_json_strargtou32(value, key, j_args);
}

/* The number is cut to the field's width: limits belong to the encoder. */
cmd_json_err_t cmd_json_input_hdmi_set_video_gopsize(hal_object_t* object, json_t* j_val) {
  uint32_t gopsize = 0;
  cmd_json_err_t err = cmd_json_strargtou32(&gopsize, NULL, j_val);
  if (err != CMD_JSON_OK) return err;
  return cmd_json_translate_hal_err(
      hal_input_hdmi_set_video_gopsize(cmd_json_hdmi(object), static_cast<uint8_t>(gopsize)));
}

cmd_json_err_t cmd_json_input_hdmi_get_video_gopsize(hal_object_t* object, json_t** j_val) {
  uint8_t gopsize = 0;
  if (hal_input_hdmi_get_video_gopsize(cmd_json_hdmi(object), &gopsize) != HAL_OK)
    return CMD_JSON_UNSUCCESSFUL;
  char text[CMD_JSON_INPUT_HDMI_VALUE_LEN];
  snprintf(text, sizeof(text), "%u", static_cast<unsigned>(gopsize));
  *j_val = json_string(text);
  return *j_val != NULL ? CMD_JSON_OK : cmd_json_input_hdmi_json_error(__func__);
}

}  // namespace

/* The set handler `set` and the get handler `get` of the input's TS, over the TS handlers
 * `ts_set` and `ts_get`. */
#define CMD_JSON_INPUT_HDMI_TSOUT(set, get, ts_set, ts_get)             \
  cmd_json_err_t set(hal_object_t* object, json_t* j_val) {             \
    return cmd_json_set_tsout<hal_input_hdmi_t, ts_set>(object, j_val); \
  }                                                                     \
  cmd_json_err_t get(hal_object_t* object, json_t** j_val) {            \
    return cmd_json_get_tsout<hal_input_hdmi_t, ts_get>(object, j_val); \
  }

namespace {
CMD_JSON_INPUT_HDMI_TSOUT(cmd_json_input_hdmi_set_ts_ext, cmd_json_input_hdmi_get_ts_ext, cmd_json_set_ts_ext,
                          cmd_json_get_ts_ext)
}  // namespace

CMD_JSON_INPUT_HDMI_TSOUT(cmd_json_set_input_hdmi_ts, cmd_json_get_input_hdmi_ts, cmd_json_set_ts,
                          cmd_json_get_ts)
CMD_JSON_INPUT_HDMI_TSOUT(cmd_json_set_input_hdmi_service, cmd_json_get_input_hdmi_services,
                          cmd_json_ts_set_service, cmd_json_ts_get_services)
CMD_JSON_INPUT_HDMI_TSOUT(cmd_json_set_input_hdmi_stream, cmd_json_get_input_hdmi_streams,
                          cmd_json_ts_set_stream, cmd_json_ts_get_streams)

/* The encoder's bitrates have no key: only the GOP size is reachable. */
const cmd_json_arg_t cmd_json_input_hdmi_ext_args[] = {
    {"video_gopsize", cmd_json_input_hdmi_set_video_gopsize, cmd_json_input_hdmi_get_video_gopsize, 0},
    {"ts", cmd_json_input_hdmi_set_ts_ext, cmd_json_input_hdmi_get_ts_ext, 0},
    {NULL, NULL, NULL, 0},
};

const cmd_json_arg_t cmd_json_input_hdmi_enc_args[] = {
    {"video_gopsize", cmd_json_input_hdmi_set_video_gopsize, cmd_json_input_hdmi_get_video_gopsize, 0},
    {NULL, NULL, NULL, 0},
};

cmd_json_err_t cmd_json_set_input_hdmi_ext(hal_object_t* object, json_t* j_val) {
  return cmd_json_set_args(object, cmd_json_input_hdmi_ext_args, j_val);
}

cmd_json_err_t cmd_json_get_input_hdmi_ext(hal_object_t* object, json_t** j_val) {
  return cmd_json_get_args(object, cmd_json_input_hdmi_ext_args, j_val);
}

cmd_json_err_t cmd_json_set_input_hdmi_enc(hal_object_t* object, json_t* j_val) {
  return cmd_json_set_args(object, cmd_json_input_hdmi_enc_args, j_val);
}

cmd_json_err_t cmd_json_get_input_hdmi_enc(hal_object_t* object, json_t** j_val) {
  return cmd_json_get_args(object, cmd_json_input_hdmi_enc_args, j_val);
}

cmd_json_err_t cmd_json_get_input_hdmi_status(hal_object_t* object, json_t** j_val) {
  hal_input_hdmi_t* hdmi = cmd_json_hdmi(object);
  if (hal_input_hdmi_get_status(hdmi) != HAL_OK) return CMD_JSON_UNSUCCESSFUL;
  char lock[CMD_JSON_INPUT_HDMI_LOCK_LEN];
  char video_format[CMD_JSON_INPUT_HDMI_VALUE_LEN];
  snprintf(lock, sizeof(lock), "%u", static_cast<unsigned>(hdmi->status.lock));
  snprintf(video_format, sizeof(video_format), "%u%c%u", static_cast<unsigned>(hdmi->status.video_height),
           hdmi->status.video_scan_mode, static_cast<unsigned>(hdmi->status.video_frame_rate));
  return cmd_json_input_hdmi_object(__func__, {{"lock", lock}, {"video_format", video_format}}, j_val);
}

cmd_json_err_t cmd_json_set_input_hdmi_hw_debug_code(hal_object_t* object, json_t* j_val) {
  if (!json_is_object(j_val)) return CMD_JSON_ARG_FRMT_ERR;
  uint32_t state = 0;
  uint32_t code = 0;
  cmd_json_err_t err = cmd_json_input_hdmi_required(__func__, &state, "state", j_val);
  if (err == CMD_JSON_OK) err = cmd_json_input_hdmi_required(__func__, &code, "code", j_val);
  if (err != CMD_JSON_OK) return err;
  hal_input_hdmi_t* hdmi = cmd_json_hdmi(object);
  if (hal_input_hdmi_set_hw_debug_code(hdmi, static_cast<uint8_t>(code), static_cast<uint8_t>(state)) !=
      HAL_OK)
    return CMD_JSON_UNSUCCESSFUL;
  DBG_WRN("A");
  /* No setting changed: the spoiled checksum makes the next poll cycle apply the input, which
   * carries the debug setting out with the others. */
  hdmi->settings_crc += 1;
  return CMD_JSON_OK;
}

cmd_json_err_t cmd_json_get_input_hdmi_hw_debug_code(hal_object_t* object, json_t** j_val) {
  uint8_t enable = 0;
  if (hal_input_hdmi_get_hw_debug_code(cmd_json_hdmi(object), CMD_JSON_INPUT_HDMI_DEBUG_CODE, &enable) !=
      HAL_OK)
    return CMD_JSON_UNSUCCESSFUL;
  char state[CMD_JSON_INPUT_HDMI_VALUE_LEN];
  snprintf(state, sizeof(state), "%u", static_cast<unsigned>(enable));
  return cmd_json_input_hdmi_object(__func__, {{"state", state}}, j_val);
}
