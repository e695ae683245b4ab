#ifndef CMD_JSON_DEVICE_H
#define CMD_JSON_DEVICE_H

#include "cmd_json.h"

extern const cmd_json_arg_t cmd_json_device_status_args[]; /* "temperature" */
extern const cmd_json_arg_t cmd_json_device_args[];        /* "output_mode" */

/* "device_status": the temperature, read afresh on every get, in whole degrees. */
cmd_json_err_t cmd_json_get_device_status(hal_object_t* hal_object, json_t** j_val);
/* "device": the output mode. The get is also what the settings file keeps. */
cmd_json_err_t cmd_json_get_device(hal_object_t* hal_object, json_t** j_val);
/* The mode changes by "execute" only, never by a "set" (a replayed settings file must not
 * switch modes); a new mode restarts the daemon in it. */
cmd_json_err_t cmd_json_execute_device(hal_object_t* hal_object, json_t* j_val);

#endif
