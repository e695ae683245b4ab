#include "hal.h"

#include <stdlib.h>
#include <string.h>
#include <zlib.h>

#include "dbg.h"

lnklist_t hal = LNKLIST_INITIALIZER;

static const hal_poll_ops_t* hal_poll_ops[HAL_OBJECT_TYPE_COUNT];

/* The orders of the poll cycle: outputs sync before the multiplexers that feed them are looked
 * at again, and HDMI inputs only take their changes in once everyone has seen them. */
static constexpr hal_object_type_t hal_sync_order[] = {HAL_OUTPUT_IP, HAL_OUTPUT_RF, HAL_TSMUX_5X1};
static constexpr hal_object_type_t hal_apply_order[] = {HAL_OUTPUT_IP, HAL_OUTPUT_RF, HAL_INPUT_HDMI};

uint32_t hal_object_count_by_type(hal_object_type_t type) {
  uint32_t count = 0;
  lnklist_node_t* node;
  FOREACH_NODE(&hal, node) {
    if (reinterpret_cast<hal_object_t*>(node)->type == type) count++;
  }
  return count;
}

hal_object_t* hal_object_by_type(hal_object_type_t type, uint32_t id) {
  lnklist_node_t* node;
  FOREACH_NODE(&hal, node) {
    hal_object_t* object = reinterpret_cast<hal_object_t*>(node);
    if (object->type == type && id-- == 0) return object;
  }
  return NULL;
}

hal_object_t* hal_object_alloc(size_t size) { return static_cast<hal_object_t*>(calloc(1, size)); }

uint32_t hal_crc32(uint32_t crc, const void* data, size_t size) {
  return static_cast<uint32_t>(crc32(crc, static_cast<const Bytef*>(data), static_cast<uInt>(size)));
}

uint8_t hal_settings_changed(const void* settings, size_t size, uint32_t* settings_crc, uint8_t update_crc) {
  uint32_t crc = hal_crc32(static_cast<uint32_t>(crc32(0, NULL, 0)), settings, size);
  if (crc == *settings_crc) return 0;
  if (update_crc) *settings_crc = crc;
  return 1;
}

/* A bounded copy that fills the rest of the buffer with NULs, so that equal texts leave equal
 * bytes for the checksums. It tolerates the same buffer on both sides: set_all and get_all hand
 * the stored text to its own setter and getter. */
static void hal_copy_text(char* to, const char* from, size_t size) {
  if (size == 0) return;
  size_t length = strnlen(from, size - 1);
  memmove(to, from, length);
  memset(to + length, 0, size - length);
}

hal_err_t hal_set_text(hal_object_t* object, hal_err_t (*op)(void* user, const char* text), char* stored,
                       size_t stored_size, const char* text) {
  if (op != NULL) {
    object->err = op(object->user, text);
    if (object->err != HAL_OK) return object->err;
  }
  hal_copy_text(stored, text, stored_size);
  object->err = HAL_OK;
  return HAL_OK;
}

hal_err_t hal_get_text(hal_object_t* object, hal_err_t (*op)(void* user, char* text, size_t size),
                       char* stored, char* text, size_t size, size_t copy_size) {
  if (op != NULL) {
    object->err = op(object->user, stored, size);
    if (object->err != HAL_OK) return object->err;
  }
  hal_copy_text(text, stored, copy_size);
  object->err = HAL_OK;
  return HAL_OK;
}

hal_object_t* hal_object_create(size_t size, hal_object_type_t type, void (*delete_)(hal_object_t*),
                                const char* func) {
  hal_object_t* object = hal_object_alloc(size);
  if (object == NULL) {
    DBG_WRN_AT(func, "Could not create");
    return NULL;
  }
  object->type = type;
  object->delete_ = delete_;
  return object;
}

void delete_hal_object(hal_object_t* object) {
  if (object == NULL) return;
  if (object->node.owner != NULL) lnklist_remove_node(object->node.owner, &object->node);
  free(object);
}

void hal_cleanup(void) {
  while (hal.head != NULL) {
    hal_object_t* object = reinterpret_cast<hal_object_t*>(hal.head);
    object->delete_(object);
  }
}

void hal_poll_register(hal_object_type_t type, const hal_poll_ops_t* ops) {
  if (type > HAL_NONE && type < HAL_OBJECT_TYPE_COUNT) hal_poll_ops[type] = ops;
}

static uint8_t hal_flag(hal_object_t* object, size_t offset) {
  return *(reinterpret_cast<uint8_t*>(object) + offset);
}

/* Runs the change test of every object of a kind; calls `step` (sync or apply) on those that
 * changed and owe it. Returns 1 when a step ran. */
static int hal_poll_kind(hal_object_type_t type, int phase_sync) {
  const hal_poll_ops_t* ops = hal_poll_ops[type];
  if (ops == NULL) return 0;
  const char* tag = phase_sync ? "SYNC_REQUIRED" : "APPLY_REQUIRED";
  hal_err_t (*step)(hal_object_t*) = phase_sync ? ops->sync : ops->apply;
  size_t flag = phase_sync ? ops->sync_required_offset : ops->apply_required_offset;
  int ran = 0;
  for (uint32_t id = 0; id < hal_object_count_by_type(type); id++) {
    hal_object_t* object = hal_object_by_type(type, id);
    if (object == NULL || !ops->changed(object) || !hal_flag(object, flag) || step == NULL) continue;
    DBG_NL();
    DBG_MSG("<%s> %s (%d)", tag, ops->name, static_cast<int>(id));
    step(object);
    ran = 1;
    DBG_MSG("</%s> %s (%d)", tag, ops->name, static_cast<int>(id));
    DBG_NL();
  }
  return ran;
}

static void hal_take_in_changes(hal_object_type_t type) {
  const hal_poll_ops_t* ops = hal_poll_ops[type];
  if (ops == NULL) return;
  for (uint32_t id = 0; id < hal_object_count_by_type(type); id++) {
    hal_object_t* object = hal_object_by_type(type, id);
    if (object != NULL) ops->changed(object);
  }
}

hal_err_t hal_poll(void) {
  int synced = 0;
  for (hal_object_type_t type : hal_sync_order) synced |= hal_poll_kind(type, 1);
  hal_take_in_changes(HAL_INPUT_HDMI);
  /* A sync rewrites transport streams that others read: let every consumer see it before
   * anything is applied. The chain ends when a cycle syncs nothing. */
  if (synced) return hal_poll();
  for (hal_object_type_t type : hal_apply_order) hal_poll_kind(type, 0);
  return HAL_OK;
}

/* Placeholder until the per-mode assembly exists: the box is built with an empty registry, so
 * the daemon runs, answers and polls, with no hardware object to address yet. */
hal_err_t hal_init_rf(void) { return HAL_OK; }
hal_err_t hal_init_ip_spts(void) { return HAL_OK; }
hal_err_t hal_init_ip_mpts(void) { return HAL_OK; }
