#ifndef HAL_H
#define HAL_H

#include <stddef.h>
#include <stdint.h>

#include "lnklist.h"

typedef enum hal_err_t : int {
  HAL_OK = 0,
  HAL_ERR = 1,
  HAL_SETTING_OOB = 2,
  HAL_I2C_ERR = 3,
  HAL_MOD_TARN_ERR = 4,
  HAL_TSMUX_ERR = 5,
  HAL_QEL2IP_ERR = 6,
} hal_err_t;

typedef enum hal_object_type_t : int {
  HAL_NONE = 0,
  HAL_I2C = 1,
  HAL_MOD_TARN = 2,
  HAL_IT9305 = 3,
  HAL_TS = 4,
  HAL_SERVICE = 5,
  HAL_STREAM = 6,
  HAL_INPUT_HDMI = 7,
  HAL_OUTPUT_RF = 8,
  HAL_OUTPUT_IP = 9,
  HAL_TSMUX_5X1 = 10,
  HAL_DEVICE = 11,
  HAL_OBJECT_TYPE_COUNT
} hal_object_type_t;

/* The header of every HAL object, always its first member: a pointer to the object is a
 * pointer to its header and to its list node. */
typedef struct hal_object_t {
  lnklist_node_t node;
  hal_object_type_t type;
  hal_err_t err;
  const char* (*strerror)(struct hal_object_t* object); /* may be null */
  void (*delete_)(struct hal_object_t* object);         /* the delete operation; never null */
  void* user;                                           /* driver context; null when in memory only */
} hal_object_t;

/* What the poll cycle needs to drive one kind of object: its change test, its sync and apply
 * steps (null when the kind has none) and where its two flags sit in its record. Each driven
 * kind registers its operations once, from its constructor. */
typedef struct hal_poll_ops_t {
  const char* name; /* the kind's name in the poll cycle's log lines */
  uint8_t (*changed)(hal_object_t* object);
  hal_err_t (*sync)(hal_object_t* object);
  hal_err_t (*apply)(hal_object_t* object);
  size_t sync_required_offset;
  size_t apply_required_offset;
} hal_poll_ops_t;

/* The registry of every top-level HAL object, newest first. */
extern lnklist_t hal;

uint32_t hal_object_count_by_type(hal_object_type_t type);
hal_object_t* hal_object_by_type(hal_object_type_t type, uint32_t id);
void delete_hal_object(hal_object_t* object);
void hal_cleanup(void);

void hal_poll_register(hal_object_type_t type, const hal_poll_ops_t* ops);
hal_err_t hal_poll(void);

/* A zero-filled record of the given size (the change checksums hash their bytes), or null. */
hal_object_t* hal_object_alloc(size_t size);

/* The assembly of the box for each output mode. */
hal_err_t hal_init_rf(void);
hal_err_t hal_init_ip_spts(void);
hal_err_t hal_init_ip_mpts(void);

#endif
