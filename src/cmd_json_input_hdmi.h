#ifndef CMD_JSON_INPUT_HDMI_H
#define CMD_JSON_INPUT_HDMI_H

#include "cmd_json.h"

/* "input_hdmi": "video_gopsize", then "ts" with its whole tree; "input_hdmi_enc": "video_gopsize"
 * alone. Each table ends with an empty row. */
extern const cmd_json_arg_t cmd_json_input_hdmi_ext_args[];
extern const cmd_json_arg_t cmd_json_input_hdmi_enc_args[];

/* The handlers of the object rows of an HDMI input (a hal_input_hdmi_t). */
cmd_json_err_t cmd_json_set_input_hdmi_ext(hal_object_t* object, json_t* j_val);
cmd_json_err_t cmd_json_get_input_hdmi_ext(hal_object_t* object, json_t** j_val);
cmd_json_err_t cmd_json_set_input_hdmi_enc(hal_object_t* object, json_t* j_val);
cmd_json_err_t cmd_json_get_input_hdmi_enc(hal_object_t* object, json_t** j_val);
cmd_json_err_t cmd_json_set_input_hdmi_ts(hal_object_t* object, json_t* j_val);
cmd_json_err_t cmd_json_get_input_hdmi_ts(hal_object_t* object, json_t** j_val);
cmd_json_err_t cmd_json_set_input_hdmi_service(hal_object_t* object, json_t* j_val);
cmd_json_err_t cmd_json_get_input_hdmi_services(hal_object_t* object, json_t** j_val);
cmd_json_err_t cmd_json_set_input_hdmi_stream(hal_object_t* object, json_t* j_val);
cmd_json_err_t cmd_json_get_input_hdmi_streams(hal_object_t* object, json_t** j_val);
/* The keys of the status, in the order of the reply, and of the debug code ("code", "state": a
 * set needs both, a get gives the last). */
extern const cmd_json_arg_t cmd_json_input_hdmi_status_keys[];
extern const cmd_json_arg_t cmd_json_input_hdmi_debug_code_keys[];

/* {"lock", "video_format"} as last read from the encoder. */
cmd_json_err_t cmd_json_get_input_hdmi_status(hal_object_t* object, json_t** j_val);
/* Set takes "state" and "code"; get reports the state of code 50 whatever was set. */
cmd_json_err_t cmd_json_set_input_hdmi_hw_debug_code(hal_object_t* object, json_t* j_val);
cmd_json_err_t cmd_json_get_input_hdmi_hw_debug_code(hal_object_t* object, json_t** j_val);

#endif
