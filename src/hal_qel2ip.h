#ifndef HAL_QEL2IP_H
#define HAL_QEL2IP_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "hal.h"
#include "hal_output_ip.h"
#include "hal_ts.h"

#define QEL2IP_PATH "/opt/bin/qel2ip"
#define QEL2IP_STOP_TIMEOUT 500 /* waits of 10 ms, shared by SIGTERM and SIGKILL */
#define QEL2IP_STAT_FORMAT "/tmp/qelstat%s"
#define QEL2IP_STAT_NAME_LEN 512
#define HAL_QEL2IP_ID_SIZE 4 /* an 8-bit unit number in decimal and its NUL */

/* The streaming child behind an IP output: its destination, its unit number and its process. */
typedef struct hal_qel2ip_t {
  char s_dst_addr[HAL_OUTPUT_IP_ADDR_SIZE];
  char s_dst_port[HAL_OUTPUT_IP_PORT_SIZE];
  char s_qel_id[HAL_QEL2IP_ID_SIZE];
  pid_t proc_id; /* -1 before the first start and once the child is reaped */
} hal_qel2ip_t;

/* An IP output streamed by the child with unit number qel_id. Not pushed into the registry. */
hal_output_ip_t* new_hal_qel2ip_output_ip(uint8_t qel_id, hal_ts_t* tsin);
/* Stops the child, whatever that answers, then deletes the output. */
void delete_hal_qel2ip_output_ip(hal_object_t* object);

/* The output's destination operations; `user` is the hal_qel2ip_t. */
hal_err_t hal_qel2ip_set_dst_addr(void* user, const char* s_dst_addr);
hal_err_t hal_qel2ip_set_dst_port(void* user, const char* s_dst_port);
hal_err_t hal_qel2ip_get_dst_addr(void* user, char* s_dst_addr, size_t size);
hal_err_t hal_qel2ip_get_dst_port(void* user, char* s_dst_port, size_t size);

/* Asking reaps a child that ended by itself: it counts as not running from then on. */
uint8_t hal_qel2ip_running(hal_qel2ip_t* q);
hal_err_t hal_qel2ip_start(hal_qel2ip_t* q);
hal_err_t hal_qel2ip_stop(hal_qel2ip_t* q);
/* Polls for the end of the child every 10 ms until `*waited` reaches QEL2IP_STOP_TIMEOUT, adding
 * each wait to it. Returns 1 when the child was reaped and a signal had ended it; a reaped child's
 * process id is forgotten. */
uint8_t hal_qel2ip_wait(hal_qel2ip_t* q, uint32_t* waited);
/* The output's apply: the child runs while any service of tsout is switched on, and each apply
 * with one switched on restarts it, so that a new destination takes effect. */
hal_err_t hal_qel2ip_apply(hal_output_ip_t* out);
/* The child's measured rate; 0 while it does not run. */
hal_err_t hal_qel2ip_get_bitrate(void* user, uint32_t* bitrate_kbps);

#endif
