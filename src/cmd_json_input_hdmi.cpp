#include "cmd_json_input_hdmi.h"

#include <stdio.h>

#include "cmd_json_ts.h"
#include "dbg.h"
#include "hal_input_hdmi.h"

/* A get request has no way to name a code: it always reports this one. */
#define CMD_JSON_INPUT_HDMI_DEBUG_CODE 50

namespace {

hal_input_hdmi_t* cmd_json_hdmi(hal_object_t* object) { return reinterpret_cast<hal_input_hdmi_t*>(object); }

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
  return cmd_json_number(__func__, static_cast<uint32_t>(gopsize), j_val);
}

CMD_JSON_TSOUT_HANDLERS(hal_input_hdmi_t, cmd_json_input_hdmi_set_ts_ext, cmd_json_input_hdmi_get_ts_ext,
                        cmd_json_set_ts_ext, cmd_json_get_ts_ext)

}  // namespace

CMD_JSON_TSOUT_HANDLERS(hal_input_hdmi_t, cmd_json_set_input_hdmi_ts, cmd_json_get_input_hdmi_ts,
                        cmd_json_set_ts, cmd_json_get_ts)
CMD_JSON_TSOUT_HANDLERS(hal_input_hdmi_t, cmd_json_set_input_hdmi_service, cmd_json_get_input_hdmi_services,
                        cmd_json_ts_set_service, cmd_json_ts_get_services)
CMD_JSON_TSOUT_HANDLERS(hal_input_hdmi_t, cmd_json_set_input_hdmi_stream, cmd_json_get_input_hdmi_streams,
                        cmd_json_ts_set_stream, cmd_json_ts_get_streams)

/* The encoder's bitrates have no key: only the GOP size is reachable. */
const cmd_json_arg_t cmd_json_input_hdmi_ext_args[] = {
    {"video_gopsize", cmd_json_input_hdmi_set_video_gopsize, cmd_json_input_hdmi_get_video_gopsize, 0},
    {"ts", cmd_json_input_hdmi_set_ts_ext, cmd_json_input_hdmi_get_ts_ext, 0, NULL, cmd_json_ts_ext_args},
    {NULL, NULL, NULL, 0},
};

const cmd_json_arg_t cmd_json_input_hdmi_enc_args[] = {
    {"video_gopsize", cmd_json_input_hdmi_set_video_gopsize, cmd_json_input_hdmi_get_video_gopsize, 0},
    {NULL, NULL, NULL, 0},
};

CMD_JSON_TABLE_HANDLERS(cmd_json_set_input_hdmi_ext, cmd_json_get_input_hdmi_ext,
                        cmd_json_input_hdmi_ext_args)
CMD_JSON_TABLE_HANDLERS(cmd_json_set_input_hdmi_enc, cmd_json_get_input_hdmi_enc,
                        cmd_json_input_hdmi_enc_args)

const cmd_json_arg_t cmd_json_input_hdmi_status_keys[] = {
    {"lock", NULL, NULL, 0}, {"video_format", NULL, NULL, 0}, {NULL, NULL, NULL, 0}};

const cmd_json_arg_t cmd_json_input_hdmi_debug_code_keys[] = {
    {"code", NULL, NULL, 1}, {"state", NULL, NULL, 1}, {NULL, NULL, NULL, 0}};

cmd_json_err_t cmd_json_get_input_hdmi_status(hal_object_t* object, json_t** j_val) {
  hal_input_hdmi_t* hdmi = cmd_json_hdmi(object);
  if (hal_input_hdmi_get_status(hdmi) != HAL_OK) return CMD_JSON_UNSUCCESSFUL;
  char video_format[CMD_JSON_DECIMAL_LEN];
  snprintf(video_format, sizeof(video_format), "%u%c%u", static_cast<unsigned>(hdmi->status.video_height),
           hdmi->status.video_scan_mode, static_cast<unsigned>(hdmi->status.video_frame_rate));
  return cmd_json_text_object(__func__,
                              {{cmd_json_input_hdmi_status_keys[0].name,
                                cmd_json_decimal(static_cast<uint32_t>(hdmi->status.lock)).text},
                               {cmd_json_input_hdmi_status_keys[1].name, video_format}},
                              j_val);
}

cmd_json_err_t cmd_json_set_input_hdmi_hw_debug_code(hal_object_t* object, json_t* j_val) {
  if (!json_is_object(j_val)) return CMD_JSON_ARG_FRMT_ERR;
  uint32_t state = 0;
  uint32_t code = 0;
  cmd_json_err_t err =
      cmd_json_required(__func__, &state, cmd_json_input_hdmi_debug_code_keys[1].name, j_val);
  if (err == CMD_JSON_OK)
    err = cmd_json_required(__func__, &code, cmd_json_input_hdmi_debug_code_keys[0].name, j_val);
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
  return cmd_json_text_object(
      __func__,
      {{cmd_json_input_hdmi_debug_code_keys[1].name, cmd_json_decimal(static_cast<uint32_t>(enable)).text}},
      j_val);
}
