#ifndef HAL_TSMUX_5X1_H
#define HAL_TSMUX_5X1_H

#include <stdint.h>

#include "hal.h"
#include "hal_ts.h"

#define HAL_TSMUX_5X1_INPUTS 5
#define HAL_TSMUX_5X1_PORTS 5

/* One input of a multiplexer: the TS fed to it (null when nothing is connected) and the chip's
 * TS input port that carries it. */
typedef struct hal_tsmux_tsin_t {
  hal_ts_t* ts;
  uint8_t ts_index;
} hal_tsmux_tsin_t;

typedef enum hal_pidfilter_mode_t : int {
  HAL_PIDFILTER_BLOCK_NONE = 0,
  HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS = 1,
  HAL_PIDFILTER_DISABLED = 2,
  HAL_PIDFILTER_PASS_NONE = 3,
  HAL_PIDFILTER_PASS_STUFFING = 4,
} hal_pidfilter_mode_t;

/* The tables only the master input may carry: PAT, CAT, NIT, SDT/BAT, EIT, RST, TDT/TOT and the
 * ATSC base PID. */
inline constexpr uint16_t PSI_PIDS[] = {0x0000, 0x0001, 0x0010, 0x0011, 0x0012, 0x0013, 0x0014, 0x1FFB};
inline constexpr uint16_t HAL_TSMUX_5X1_STUFFING_PID = 0x1FFF;

/* Merges up to five input TSs into tsout on one chip. One enabled input, the master, carries
 * the PSI of the merged stream; the PSI of every other input is filtered out. */
typedef struct hal_tsmux_5x1_t {
  hal_object_t hal_object;
  hal_tsmux_tsin_t tsin[HAL_TSMUX_5X1_INPUTS];
  hal_ts_t* tsout;       /* owned */
  hal_ts_t* master_tsin; /* the input TS whose module generates the PSI, or null */
  uint8_t sync_required;
  uint8_t apply_required; /* never set: there is no apply step */
  uint32_t settings_crc;
  struct {
    hal_err_t (*pidfilter)(void* user, uint8_t port, hal_pidfilter_mode_t mode);
  } init;
  struct {
    hal_err_t (*pidfilter_pid)(void* user, uint8_t port, uint16_t pid);
  } add;
  struct {
    hal_err_t (*enabled)(void* user, uint8_t port, uint8_t enabled);
  } set;
  struct {
    hal_err_t (*enabled)(void* user, uint8_t port, uint8_t* enabled);
  } get;
  struct {
    uint8_t enabled[HAL_TSMUX_5X1_PORTS]; /* by chip port, not by input */
  } settings;
} hal_tsmux_5x1_t;

/* A multiplexer with its own tsout and no driver; the chip adaptor fills the operations. Not
 * pushed into the registry. */
hal_tsmux_5x1_t* new_hal_tsmux_5x1(hal_tsmux_tsin_t tsin_0, hal_tsmux_tsin_t tsin_1, hal_tsmux_tsin_t tsin_2,
                                   hal_tsmux_tsin_t tsin_3, hal_tsmux_tsin_t tsin_4);
/* Deletes tsout and gives up the master, so that another multiplexer can take that input; the
 * input TSs belong to their producers. */
void delete_hal_tsmux_5x1(hal_object_t* object);

/* Port operations answer HAL_SETTING_OOB for a port past the chip's last. */
hal_err_t hal_tsmux_5x1_set_enabled(hal_tsmux_5x1_t* mux, uint8_t port, uint8_t enabled);
hal_err_t hal_tsmux_5x1_get_enabled(hal_tsmux_5x1_t* mux, uint8_t port, uint8_t* enabled);
/* Resets a port's filter to `mode` and hands the chip the PIDs that mode needs. */
hal_err_t hal_tsmux_5x1_pidfilter_init(hal_tsmux_5x1_t* mux, uint8_t port, hal_pidfilter_mode_t mode);

uint8_t hal_tsmux_5x1_changed(hal_tsmux_5x1_t* mux);
hal_err_t hal_tsmux_5x1_sync(hal_tsmux_5x1_t* mux);

#endif
