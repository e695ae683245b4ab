#ifndef CMD_JSON_TS_H
#define CMD_JSON_TS_H

#include "cmd_json.h"

/* The keys of a transport stream, a service and a stream, in the order they are applied on set
 * and produced on get; each table ends with an empty row. The _ext tables add the members:
 * "services" of a TS, "streams" of a service. */
extern const cmd_json_arg_t cmd_json_ts_args[];
extern const cmd_json_arg_t cmd_json_ts_ext_args[];
extern const cmd_json_arg_t cmd_json_service_args[];
extern const cmd_json_arg_t cmd_json_service_ext_args[];
extern const cmd_json_arg_t cmd_json_stream_args[];

/* The handlers the input and output objects call with their transport stream (a hal_ts_t) as
 * the object. */
cmd_json_err_t cmd_json_set_ts(hal_object_t* object, json_t* j_val);
cmd_json_err_t cmd_json_get_ts(hal_object_t* object, json_t** j_val);
cmd_json_err_t cmd_json_set_ts_ext(hal_object_t* object, json_t* j_val);
cmd_json_err_t cmd_json_get_ts_ext(hal_object_t* object, json_t** j_val);
/* One service, chosen by the "service_tag" of the arguments. */
cmd_json_err_t cmd_json_ts_set_service(hal_object_t* object, json_t* j_val);
/* Every service, without its streams. */
cmd_json_err_t cmd_json_ts_get_services(hal_object_t* object, json_t** j_val);
/* One stream, chosen by "service_tag" and "stream_tag": a stream tag is unique only within its
 * service. */
cmd_json_err_t cmd_json_ts_set_stream(hal_object_t* object, json_t* j_val);
/* The streams of every service in one flat array, each marked with its "service_tag". */
cmd_json_err_t cmd_json_ts_get_streams(hal_object_t* object, json_t** j_val);

#endif
