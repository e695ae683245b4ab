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
/* A zero-filled object of kind `type` with its delete operation, or null after the warning
 * "Could not create" in the name of the constructor `func`. */
hal_object_t* hal_object_create(size_t size, hal_object_type_t type, void (*delete_)(hal_object_t*),
                                const char* func);
template <typename T>
T* hal_new(hal_object_type_t type, void (*delete_)(hal_object_t*), const char* func) {
  return reinterpret_cast<T*>(hal_object_create(sizeof(T), type, delete_, func));
}

/* The change test of a settings group: the zlib crc32 of its bytes as held in memory, compared
 * with the stored one and, when update_crc is set, taken in. Returns 1 on a change. */
uint8_t hal_settings_changed(const void* settings, size_t size, uint32_t* settings_crc, uint8_t update_crc);
uint32_t hal_crc32(uint32_t crc, const void* data, size_t size);

/* The most bytes a remembered checksum covers: a transport stream's or a service's group. */
#define HAL_CRC_MEMO_SIZE 96

/* A checksum remembered together with the bytes it was computed over. Every poll cycle tests each
 * transport stream several times (its producer and each of its readers, in both phases) and
 * nearly always nothing has moved: comparing the bytes with those last hashed costs far less than
 * hashing them again, and gives the same checksum. Zero-filled: nothing remembered yet. */
typedef struct hal_crc_memo_t {
  uint8_t bytes[HAL_CRC_MEMO_SIZE];
  uint32_t size;
  uint32_t crc;
} hal_crc_memo_t;

/* The zlib crc32, seeded with crc32(0, NULL, 0), of `size` bytes at `data` followed by `tail_size`
 * bytes at `tail` (none when 0); taken from the memo when those are the bytes it holds. */
uint32_t hal_crc32_memo(hal_crc_memo_t* memo, const void* data, size_t size, const void* tail = NULL,
                        size_t tail_size = 0);
/* hal_settings_changed with the checksum taken through a memo. */
uint8_t hal_settings_changed_memo(hal_crc_memo_t* memo, const void* settings, size_t size,
                                  uint32_t* settings_crc, uint8_t update_crc);

/* The driver-first rule shared by every setter: the driver operation, when there is one, must
 * accept the value before it is stored. `extra` are the arguments the operation takes between
 * `user` and the value (a port, a tag). */
template <typename T, typename Op, typename... Extra>
hal_err_t hal_set_value(hal_object_t* object, Op op, T* stored, T value, Extra... extra) {
  if (op != NULL) {
    object->err = op(object->user, extra..., value);
    if (object->err != HAL_OK) return object->err;
  }
  *stored = value;
  object->err = HAL_OK;
  return HAL_OK;
}

/* Every getter lets the driver refresh the stored value in place, then copies it out. */
template <typename T, typename Op, typename... Extra>
hal_err_t hal_get_value(hal_object_t* object, Op op, T* stored, T* value, Extra... extra) {
  if (op != NULL) {
    object->err = op(object->user, extra..., stored);
    if (object->err != HAL_OK) return object->err;
  }
  *value = *stored;
  object->err = HAL_OK;
  return HAL_OK;
}

// NOLINTBEGIN(bugprone-macro-parentheses): T names a type, which takes no parentheses
/* The setter and getter <prefix>_set_<field> and <prefix>_get_<field> of a <prefix>_t whose
 * operations for the value are set.<op> and get.<op> and which keeps it in `stored`. */
#define HAL_VALUE_ACCESSORS(prefix, field, op, stored, T)                                 \
  hal_err_t prefix##_set_##field(prefix##_t* object, T value) {                           \
    return hal_set_value<T>(&object->hal_object, object->set.op, &object->stored, value); \
  }                                                                                       \
  hal_err_t prefix##_get_##field(prefix##_t* object, T* value) {                          \
    return hal_get_value<T>(&object->hal_object, object->get.op, &object->stored, value); \
  }
// NOLINTEND(bugprone-macro-parentheses)

/* Text settings: stored NUL-terminated within their buffer, longer text cut. */
hal_err_t hal_set_text(hal_object_t* object, hal_err_t (*op)(void* user, const char* text), char* stored,
                       size_t stored_size, const char* text);
/* The driver refreshes the stored text given the caller's size; the copy out is bounded by
 * `copy_size`. */
hal_err_t hal_get_text(hal_object_t* object, hal_err_t (*op)(void* user, char* text, size_t size),
                       char* stored, char* text, size_t size, size_t copy_size);

/* Pass-throughs that store nothing: the result of the operation, or HAL_OK without one. */
template <typename Op, typename... Args>
hal_err_t hal_pass(hal_object_t* object, Op op, Args... args) {
  object->err = op != NULL ? op(object->user, args...) : HAL_OK;
  return object->err;
}

/* set_all and get_all: the steps in their order, stopping at the first that fails; the
 * object's err then holds that failure. */
template <typename T, size_t N>
// cppcheck-suppress constParameter ; the steps already are const (const pointers)
hal_err_t hal_run_all(T* object, hal_err_t (*const (&steps)[N])(T*)) {
  for (hal_err_t (*step)(T*) : steps) {
    if (step(object) != HAL_OK) return object->hal_object.err;
  }
  object->hal_object.err = HAL_OK;
  return HAL_OK;
}

/* The poll cycle's view of a kind's typed change test and steps. */
template <typename T, uint8_t (*F)(T*)>
uint8_t hal_poll_changed(hal_object_t* object) {
  return F(reinterpret_cast<T*>(object));
}
template <typename T, hal_err_t (*F)(T*)>
hal_err_t hal_poll_step(hal_object_t* object) {
  return F(reinterpret_cast<T*>(object));
}

/* The assembly of the box for each output mode. */
hal_err_t hal_init_rf(void);
hal_err_t hal_init_ip_spts(void);
hal_err_t hal_init_ip_mpts(void);

#endif
