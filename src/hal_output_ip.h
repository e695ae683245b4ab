#ifndef HAL_OUTPUT_IP_H
#define HAL_OUTPUT_IP_H

#include <stddef.h>
#include <stdint.h>

#include "hal.h"
#include "hal_ts.h"

#define HAL_OUTPUT_IP_ADDR_SIZE 16 /* a dotted IPv4 address and its NUL */
#define HAL_OUTPUT_IP_PORT_SIZE 6  /* a decimal UDP port and its NUL */

typedef struct hal_output_ip_settings_t {
  char s_dst_addr[HAL_OUTPUT_IP_ADDR_SIZE];
  char s_dst_port[HAL_OUTPUT_IP_PORT_SIZE];
} hal_output_ip_settings_t;

/* The network output: streams tsin to a UDP destination and offers its services, to be
 * switched on and off, in tsout. */
typedef struct hal_output_ip_t {
  hal_object_t hal_object;
  hal_ts_t* tsin;  /* not owned */
  hal_ts_t* tsout; /* owned */
  uint32_t settings_crc;
  uint8_t sync_required;
  uint8_t apply_required;
  hal_err_t (*apply)(struct hal_output_ip_t* out); /* starts or stops the streaming */
  struct {
    hal_err_t (*s_dst_addr)(void* user, const char* s_dst_addr);
    hal_err_t (*s_dst_port)(void* user, const char* s_dst_port);
  } set;
  struct {
    hal_err_t (*s_dst_addr)(void* user, char* s_dst_addr, size_t size);
    hal_err_t (*s_dst_port)(void* user, char* s_dst_port, size_t size);
    hal_err_t (*bitrate_kbps)(void* user, uint32_t* bitrate_kbps);
  } get;
  hal_output_ip_settings_t settings;
} hal_output_ip_t;

/* An output reading tsin, with its own tsout and no driver; the streaming adaptor fills the
 * operations. Not pushed into the registry. */
hal_output_ip_t* new_hal_output_ip(hal_ts_t* tsin);
/* Deletes tsout, then the object; the adaptor's destructor ends with it. */
void delete_hal_output_ip(hal_object_t* object);

/* Longer text is cut to what the buffer holds. */
hal_err_t hal_output_ip_set_dst_addr(hal_output_ip_t* out, const char* s_dst_addr);
hal_err_t hal_output_ip_set_dst_port(hal_output_ip_t* out, const char* s_dst_port);
/* Copies out at most size - 1 characters and the NUL. */
hal_err_t hal_output_ip_get_dst_addr(hal_output_ip_t* out, char* s_dst_addr, size_t size);
hal_err_t hal_output_ip_get_dst_port(hal_output_ip_t* out, char* s_dst_port, size_t size);
/* The measured rate; without a driver operation the output is left as it was. */
hal_err_t hal_output_ip_get_bitrate(hal_output_ip_t* out, uint32_t* bitrate_kbps);

uint8_t hal_output_ip_settings_changed(hal_output_ip_t* out, uint8_t update_crc);
uint8_t hal_output_ip_changed(hal_output_ip_t* out);
hal_err_t hal_output_ip_sync(hal_output_ip_t* out);
hal_err_t hal_output_ip_apply(hal_output_ip_t* out);

#endif
