#ifndef CMD_JSON_OUTPUT_IP_H
#define CMD_JSON_OUTPUT_IP_H

#include "cmd_json.h"

/* The network-settings service that owns the streaming interface's configuration. */
#define CMD_JSON_IFCONFIG_PORT "49998"
#define CMD_JSON_IFCONFIG_OBJECT "/unified_services/ip/settings"
#define CMD_JSON_IFCONFIG_INTERFACE "eth1"
#define CMD_JSON_IFCONFIG_RESTART "/etc/rc.d/init.d/network_eth1 restart"
#define CMD_JSON_IFCONFIG_TIMEOUT_MS 5000
#define CMD_JSON_IFCONFIG_REPLY_LEN 2048

/* The keys of the IP output, in the order they are applied on set and produced on get. */
extern const cmd_json_arg_t cmd_json_output_ip_ext_args[];    /* "dst_addr", "dst_port", "ts" */
extern const cmd_json_arg_t cmd_json_output_ip_dst_args[];    /* "dst_addr", "dst_port" */
extern const cmd_json_arg_t cmd_json_output_ip_status_args[]; /* "bitrate" */

/* "output_ip": the destination and the whole output TS; its get is also what the settings file
 * keeps. */
cmd_json_err_t cmd_json_set_output_ip_ext(hal_object_t* hal_object, json_t* j_val);
cmd_json_err_t cmd_json_get_output_ip_ext(hal_object_t* hal_object, json_t** j_val);
/* "output_ip_dst" */
cmd_json_err_t cmd_json_set_output_ip_dst(hal_object_t* hal_object, json_t* j_val);
cmd_json_err_t cmd_json_get_output_ip_dst(hal_object_t* hal_object, json_t** j_val);
/* "output_ip_ts": the plain TS keys of tsout, directly in the arguments. */
cmd_json_err_t cmd_json_set_output_ip_ts(hal_object_t* hal_object, json_t* j_val);
cmd_json_err_t cmd_json_get_output_ip_ts(hal_object_t* hal_object, json_t** j_val);
/* "output_ip_services": one service of tsout chosen by "service_tag"; the get lists them all. */
cmd_json_err_t cmd_json_set_output_ip_service(hal_object_t* hal_object, json_t* j_val);
cmd_json_err_t cmd_json_get_output_ip_services(hal_object_t* hal_object, json_t** j_val);
/* "output_ip_status": the measured bitrate. */
cmd_json_err_t cmd_json_get_output_ip_status(hal_object_t* hal_object, json_t** j_val);

/* "output_ip_ifconfig": a client of the network-settings service, one connection per request.
 * Both block for up to CMD_JSON_IFCONFIG_TIMEOUT_MS waiting for the answer; a service that
 * stays silent is not an error, the get then produces no value. The object is not used. */
cmd_json_err_t cmd_json_get_output_ip_ifconfig(hal_object_t* hal_object, json_t** j_val);
/* Adds "interface": "eth1" to the arguments and, when the service accepts them, restarts the
 * interface. */
cmd_json_err_t cmd_json_set_output_ip_ifconfig(hal_object_t* hal_object, json_t* j_val);

#endif
