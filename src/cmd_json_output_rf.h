#ifndef CMD_JSON_OUTPUT_RF_H
#define CMD_JSON_OUTPUT_RF_H

#include "cmd_json.h"

/* "output_rf": the thirteen modulation keys, then "ts" with its whole tree; "output_rf_mod": the
 * modulation keys alone. "type" comes first and "frequency" before "level", as they apply. Each
 * table ends with an empty row. */
extern const cmd_json_arg_t cmd_json_output_rf_ext_args[];
extern const cmd_json_arg_t cmd_json_output_rf_mod_args[];

/* The handlers of the object rows of the RF output (a hal_output_rf_t). */
/* Set takes "enabled", "i" and "q", all three required, and goes straight to the modulator; get
 * returns "i" and "q". */
cmd_json_err_t cmd_json_set_output_rf_cal(hal_object_t* object, json_t* j_val);
cmd_json_err_t cmd_json_get_output_rf_cal(hal_object_t* object, json_t** j_val);
cmd_json_err_t cmd_json_set_output_rf_ext(hal_object_t* object, json_t* j_val);
cmd_json_err_t cmd_json_get_output_rf_ext(hal_object_t* object, json_t** j_val);
cmd_json_err_t cmd_json_set_output_rf_mod(hal_object_t* object, json_t* j_val);
cmd_json_err_t cmd_json_get_output_rf_mod(hal_object_t* object, json_t** j_val);
cmd_json_err_t cmd_json_set_output_rf_ts(hal_object_t* object, json_t* j_val);
cmd_json_err_t cmd_json_get_output_rf_ts(hal_object_t* object, json_t** j_val);
/* The sync overwrites every service setting but "enabled" from the input side. */
cmd_json_err_t cmd_json_set_output_rf_service(hal_object_t* object, json_t* j_val);
cmd_json_err_t cmd_json_get_output_rf_services(hal_object_t* object, json_t** j_val);
/* The keys of the calibration ("enabled", "i", "q": a set needs all three, a get gives the last
 * two) and of the status, in the order of the reply. */
extern const cmd_json_arg_t cmd_json_output_rf_cal_keys[];
extern const cmd_json_arg_t cmd_json_output_rf_status_keys[];

/* {"max_bitrate", "overflow", "bitrate"}: the modulator's limit and overflow flag, and the
 * configured bitrate of the enabled services. */
cmd_json_err_t cmd_json_get_output_rf_status(hal_object_t* object, json_t** j_val);

#endif
