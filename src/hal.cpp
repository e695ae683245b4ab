#include "hal.h"

#include <stdlib.h>
#include <string.h>
#include <zlib.h>

#include <initializer_list>

#include "boxroot.h"
#include "dbg.h"
#include "hal_device.h"
#include "hal_i2c.h"
#include "hal_it9305.h"
#include "hal_mod_tarn.h"
#include "hal_qel2ip.h"
#include "hal_tsmux_5x1.h"
#include "utf8.h"

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

static uint8_t hal_take_crc(uint32_t crc, uint32_t* settings_crc, uint8_t update_crc) {
  if (crc == *settings_crc) return 0;
  if (update_crc) *settings_crc = crc;
  return 1;
}

uint8_t hal_settings_changed(const void* settings, size_t size, uint32_t* settings_crc, uint8_t update_crc) {
  return hal_take_crc(hal_crc32(static_cast<uint32_t>(crc32(0, NULL, 0)), settings, size), settings_crc,
                      update_crc);
}

static uint32_t hal_crc32_parts(const void* data, size_t size, const void* tail, size_t tail_size) {
  uint32_t crc = hal_crc32(static_cast<uint32_t>(crc32(0, NULL, 0)), data, size);
  /* crc32 given no buffer answers its seed, not the checksum so far. */
  return tail_size > 0 ? hal_crc32(crc, tail, tail_size) : crc;
}

static bool hal_crc_memo_holds(const hal_crc_memo_t* memo, const void* data, size_t size, const void* tail,
                               size_t tail_size) {
  return memo->size == size + tail_size && memcmp(memo->bytes, data, size) == 0 &&
         (tail_size == 0 || memcmp(memo->bytes + size, tail, tail_size) == 0);
}

uint32_t hal_crc32_memo(hal_crc_memo_t* memo, const void* data, size_t size, const void* tail,
                        size_t tail_size) {
  if (size + tail_size > sizeof(memo->bytes)) return hal_crc32_parts(data, size, tail, tail_size);
  if (!hal_crc_memo_holds(memo, data, size, tail, tail_size)) {
    memo->crc = hal_crc32_parts(data, size, tail, tail_size);
    memcpy(memo->bytes, data, size);
    if (tail_size > 0) memcpy(memo->bytes + size, tail, tail_size);
    memo->size = static_cast<uint32_t>(size + tail_size);
  }
  return memo->crc;
}

uint8_t hal_settings_changed_memo(hal_crc_memo_t* memo, const void* settings, size_t size,
                                  uint32_t* settings_crc, uint8_t update_crc) {
  return hal_take_crc(hal_crc32_memo(memo, settings, size), settings_crc, update_crc);
}

/* A bounded copy, cut between characters, that fills the rest of the buffer with NULs, so that
 * equal texts leave equal bytes for the checksums. It tolerates the same buffer on both sides:
 * set_all and get_all hand the stored text to its own setter and getter. */
static void hal_copy_text(char* to, const char* from, size_t size) {
  if (size == 0) return;
  size_t length = utf8_copy(to, size, from);
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

/* One sync pass over every kind; returns 1 when a step ran. */
static int hal_sync_pass(void) {
  int synced = 0;
  for (hal_object_type_t type : hal_sync_order) synced |= hal_poll_kind(type, 1);
  hal_take_in_changes(HAL_INPUT_HDMI);
  return synced;
}

hal_err_t hal_poll(void) {
  /* A sync rewrites transport streams that others read: let every consumer see it before
   * anything is applied. The chain ends when a pass syncs nothing. */
  int synced;
  do {
    synced = hal_sync_pass();
  } while (synced);
  for (hal_object_type_t type : hal_apply_order) hal_poll_kind(type, 0);
  return HAL_OK;
}

/* ---- the box of each output mode ---- */

#define HAL_BOX_MODULES 4
#define HAL_BOX_CHIPS 2

/* Every object the assembly may create; absent ones stay null. */
typedef struct hal_box_t {
  hal_i2c_t* i2c;
  hal_mod_tarn_t* mod_tarn[HAL_BOX_MODULES];
  hal_input_hdmi_t* input_hdmi[HAL_BOX_MODULES];
  hal_it9305_t* it9305[HAL_BOX_CHIPS];
  hal_tsmux_5x1_t* tsmux[HAL_BOX_CHIPS];
  hal_output_rf_t* output_rf[HAL_BOX_CHIPS]; /* the one fed by the multiplexer of the same number */
  hal_output_ip_t* output_ip;
  hal_device_t* device;
} hal_box_t;

typedef struct hal_box_chip_t {
  const char* name;
  uint8_t i2c_addr;
  uint8_t ts_clock_divider;
  const char* gpio_value;
  const char* gpio_direction;
  const char* gpio_pin;
} hal_box_chip_t;

static constexpr hal_box_chip_t hal_box_it9305_0_rf = {
    "it9305_0", 0x34, 20, "/sys/class/gpio/gpio196/value", "/sys/class/gpio/gpio196/direction", "196"};
static constexpr hal_box_chip_t hal_box_it9305_1_rf = {
    "it9305_1", 0x35, 20, "/sys/class/gpio/gpio193/value", "/sys/class/gpio/gpio193/direction", "193"};
static constexpr hal_box_chip_t hal_box_it9305_0_spts = {
    "it9305_0", 0x34, 12, "/sys/class/gpio/gpio17/value", "/sys/class/gpio/gpio17/direction", "17"};
static constexpr hal_box_chip_t hal_box_it9305_0_mpts = {
    "it9305_0", 0x34, 12, "/sys/class/gpio/gpio196/value", "/sys/class/gpio/gpio196/direction", "196"};

/* The board's routing of the HDMI modules to the chip's TS ports; input 4 is not connected. */
static constexpr uint8_t hal_box_ts_index[HAL_TSMUX_5X1_INPUTS] = {4, 2, 0, 1, 3};

static constexpr alarm_led_t hal_box_led_rgb_red = {"/sys/class/leds/rgb_red/brightness",
                                                    "/sys/class/leds/rgb_red/trigger"};
static constexpr alarm_led_t hal_box_led_storage = {"/storage/brightness", "/storage/trigger"};
static constexpr temp_sensor_t hal_box_temp_hwmon = {"/sys/class/hwmon/hwmon0/device/temp1_input"};
static constexpr temp_sensor_t hal_box_temp_thermal = {"/sys/devices/virtual/thermal/thermal_zone0/temp"};

/* Registers an object as soon as it exists, so that the newest of a kind gets index 0. */
template <typename T>
static T* hal_box_add(T* object) {
  if (object != NULL) lnklist_push_node(&hal, &object->hal_object.node);
  return object;
}

/* Deletes, in the order given, those of the objects that were created. */
static void hal_box_delete(std::initializer_list<void*> objects) {
  for (void* object : objects) {
    if (object != NULL) static_cast<hal_object_t*>(object)->delete_(static_cast<hal_object_t*>(object));
  }
}

static bool hal_box_i2c(hal_box_t* box) {
  char dev[BOXROOT_PATH_LEN];
  return (box->i2c = hal_box_add(new_hal_i2c("i2c_0", boxroot_path(dev, sizeof(dev), "/dev/i2c-0")))) != NULL;
}

/* Modules and their HDMI inputs from the highest number down: number 0 becomes index 0. */
static bool hal_box_modules(hal_box_t* box, int count, const uint8_t* i2c_addr) {
  for (int n = count - 1; n >= 0; n--) {
    char name[24];
    snprintf(name, sizeof(name), "mod_tarn_%d", n);
    if ((box->mod_tarn[n] = hal_box_add(new_hal_mod_tarn(name, i2c_addr[n], box->i2c))) == NULL) return false;
  }
  for (int n = count - 1; n >= 0; n--) {
    if ((box->input_hdmi[n] = hal_box_add(new_hal_mod_tarn_input_hdmi(box->mod_tarn[n]))) == NULL)
      return false;
  }
  return true;
}

static bool hal_box_chip(hal_box_t* box, int n, const hal_box_chip_t* chip) {
  gpio_t reset = {chip->gpio_value, chip->gpio_direction, chip->gpio_pin, -1};
  box->it9305[n] =
      hal_box_add(new_hal_it9305(chip->name, chip->i2c_addr, box->i2c, chip->ts_clock_divider, reset));
  return box->it9305[n] != NULL;
}

/* Every multiplexer reads all four HDMI inputs. */
static bool hal_box_tsmux(hal_box_t* box, int n) {
  hal_tsmux_tsin_t in[HAL_TSMUX_5X1_INPUTS];
  for (int i = 0; i < HAL_TSMUX_5X1_INPUTS; i++) {
    in[i] = {i < HAL_BOX_MODULES ? box->input_hdmi[i]->tsout : NULL, hal_box_ts_index[i]};
  }
  box->tsmux[n] = hal_box_add(new_hal_it9305_tsmux_5x1(box->it9305[n], in[0], in[1], in[2], in[3], in[4]));
  return box->tsmux[n] != NULL;
}

static bool hal_box_device(hal_box_t* box, const alarm_led_t& led, const temp_sensor_t& temp,
                           hal_device_output_mode_t mode) {
  return (box->device = hal_box_add(new_hal_device(led, temp, mode))) != NULL;
}

static hal_err_t hal_box_done(void) {
  DBG_MSG("</INIT_HAL> Done");
  return HAL_OK;
}

static constexpr uint8_t hal_box_four_modules[HAL_BOX_MODULES] = {0x30, 0x31, 0x32, 0x33};
/* The single-module variant carries its module at 0x32. */
static constexpr uint8_t hal_box_one_module[1] = {0x32};

hal_err_t hal_init_rf(void) {
  DBG_MSG("<INIT_HAL> RF");
  hal_box_t box = {};
  bool built =
      hal_box_i2c(&box) && hal_box_modules(&box, HAL_BOX_MODULES, hal_box_four_modules) &&
      hal_box_chip(&box, 1, &hal_box_it9305_1_rf) && hal_box_chip(&box, 0, &hal_box_it9305_0_rf) &&
      hal_box_tsmux(&box, 1) && hal_box_tsmux(&box, 0) &&
      (box.output_rf[1] = hal_box_add(new_hal_mod_tarn_output_rf(box.mod_tarn[2], box.tsmux[1]->tsout))) &&
      (box.output_rf[0] = hal_box_add(new_hal_mod_tarn_output_rf(box.mod_tarn[0], box.tsmux[0]->tsout))) &&
      hal_box_device(&box, hal_box_led_rgb_red, hal_box_temp_hwmon, HAL_DEVICE_RF);
  if (built) return hal_box_done();
  hal_box_delete({box.i2c, box.mod_tarn[0], box.mod_tarn[1], box.mod_tarn[2], box.mod_tarn[3], box.it9305[0],
                  box.it9305[1], box.input_hdmi[0], box.input_hdmi[1], box.input_hdmi[2], box.input_hdmi[3],
                  box.output_rf[0], box.output_rf[1], box.tsmux[0], box.tsmux[1]});
  DBG_MSG("<INIT_HAL> Fail"); /* without the slash, unlike the IP modes */
  return HAL_ERR;
}

hal_err_t hal_init_ip_spts(void) {
  DBG_MSG("<INIT_HAL> IP SPTS");
  hal_box_t box = {};
  /* The chip is there but carries no multiplexer: the input is streamed directly. */
  bool built = hal_box_i2c(&box) && hal_box_modules(&box, 1, hal_box_one_module) &&
               hal_box_chip(&box, 0, &hal_box_it9305_0_spts) &&
               (box.output_ip = hal_box_add(new_hal_qel2ip_output_ip(0, box.input_hdmi[0]->tsout))) &&
               hal_box_device(&box, hal_box_led_storage, hal_box_temp_thermal, HAL_DEVICE_IP_SPTS);
  if (built) return hal_box_done();
  /* The chip stays registered: it is not in this variant's clean-up. */
  hal_box_delete({box.i2c, box.mod_tarn[0], box.input_hdmi[0], box.output_ip});
  DBG_MSG("</INIT_HAL> Fail");
  return HAL_ERR;
}

hal_err_t hal_init_ip_mpts(void) {
  DBG_MSG("<INIT_HAL> IP MPTS");
  hal_box_t box = {};
  bool built = hal_box_i2c(&box) && hal_box_modules(&box, HAL_BOX_MODULES, hal_box_four_modules) &&
               hal_box_chip(&box, 0, &hal_box_it9305_0_mpts) && hal_box_tsmux(&box, 0) &&
               (box.output_ip = hal_box_add(new_hal_qel2ip_output_ip(4, box.tsmux[0]->tsout))) &&
               hal_box_device(&box, hal_box_led_rgb_red, hal_box_temp_hwmon, HAL_DEVICE_IP_MPTS);
  if (built) return hal_box_done();
  hal_box_delete({box.i2c, box.mod_tarn[0], box.mod_tarn[1], box.mod_tarn[2], box.mod_tarn[3], box.it9305[0],
                  box.input_hdmi[0], box.input_hdmi[1], box.input_hdmi[2], box.input_hdmi[3], box.output_ip,
                  box.tsmux[0]});
  DBG_MSG("</INIT_HAL> Fail");
  return HAL_ERR;
}
