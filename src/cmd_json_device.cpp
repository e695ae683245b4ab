#include "cmd_json_device.h"

#include <string.h>

#include "hal_device.h"

namespace {

struct cmd_json_device_mode_t {
  hal_device_output_mode_t mode;
  const char* name;
};

/* Names are exact and case-sensitive. */
const cmd_json_device_mode_t cmd_json_device_modes[] = {
    {HAL_DEVICE_RF, "rf"},
    {HAL_DEVICE_IP_SPTS, "ip_spts"},
    {HAL_DEVICE_IP_MPTS, "ip_mpts"},
};

const char* cmd_json_device_mode_word(size_t n) {
  return n < sizeof(cmd_json_device_modes) / sizeof(cmd_json_device_modes[0]) ? cmd_json_device_modes[n].name
                                                                              : NULL;
}

hal_device_t* cmd_json_device(hal_object_t* object) { return reinterpret_cast<hal_device_t*>(object); }

/* Millidegrees are cut, not rounded, to whole degrees: 45999 is 45. */
cmd_json_err_t cmd_json_device_get_temperature(hal_object_t* object, json_t** j_val) {
  hal_device_t* device = cmd_json_device(object);
  if (hal_device_update_temperature(device) != HAL_OK) return cmd_json_translate_hal_err(object->err);
  return cmd_json_number(__func__, static_cast<int32_t>(device->status.temperature / 1000u), j_val);
}

cmd_json_err_t cmd_json_device_set_output_mode(hal_object_t* object, json_t* j_val) {
  const char* name = json_string_value(j_val);
  if (name == NULL) return CMD_JSON_ARG_FRMT_ERR;
  for (const cmd_json_device_mode_t& mode : cmd_json_device_modes) {
    if (strcmp(name, mode.name) == 0)
      return cmd_json_translate_hal_err(hal_device_set_output_mode(cmd_json_device(object), mode.mode));
  }
  return CMD_JSON_ARG_OOB;
}

cmd_json_err_t cmd_json_device_get_output_mode(hal_object_t* object, json_t** j_val) {
  hal_device_output_mode_t output_mode = HAL_DEVICE_RF;
  if (hal_device_get_output_mode(cmd_json_device(object), &output_mode) != HAL_OK)
    return cmd_json_translate_hal_err(object->err);
  for (const cmd_json_device_mode_t& mode : cmd_json_device_modes) {
    if (mode.mode == output_mode) return cmd_json_text(__func__, mode.name, j_val);
  }
  return CMD_JSON_ARG_OOB;
}

}  // namespace

const cmd_json_arg_t cmd_json_device_status_args[] = {
    {"temperature", NULL, cmd_json_device_get_temperature, 0},
    {NULL, NULL, NULL, 0},
};

const cmd_json_arg_t cmd_json_device_args[] = {
    {"output_mode", cmd_json_device_set_output_mode, cmd_json_device_get_output_mode, 0,
     cmd_json_device_mode_word},
    {NULL, NULL, NULL, 0},
};

CMD_JSON_TABLE_GET(cmd_json_get_device_status, cmd_json_device_status_args)
CMD_JSON_TABLE_HANDLERS(cmd_json_execute_device, cmd_json_get_device, cmd_json_device_args)
