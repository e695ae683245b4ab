#include "hal_it9305.h"

#include "dbg.h"

/* Indexed by hal_pidfilter_mode_t. A disabled filter is a block filter with an empty table,
 * which passes everything; the chip's own disabled mode is never used. */
static constexpr PID_FILTER_MODE hal_it9305_pidfilter_modes[] = {
    PID_FILTER_MODE_BLOCK, /* HAL_PIDFILTER_BLOCK_NONE */
    PID_FILTER_MODE_BLOCK, /* HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS */
    PID_FILTER_MODE_BLOCK, /* HAL_PIDFILTER_DISABLED */
    PID_FILTER_MODE_PASS,  /* HAL_PIDFILTER_PASS_NONE */
    PID_FILTER_MODE_PASS,  /* HAL_PIDFILTER_PASS_STUFFING */
};
static_assert(sizeof(hal_it9305_pidfilter_modes) / sizeof(hal_it9305_pidfilter_modes[0]) ==
                  HAL_PIDFILTER_PASS_STUFFING + 1,
              "one chip mode per HAL mode");

PID_FILTER_MODE hal_to_it9305_pidfilter_mode(hal_pidfilter_mode_t mode) {
  if (mode < HAL_PIDFILTER_BLOCK_NONE || mode > HAL_PIDFILTER_PASS_STUFFING) return PID_FILTER_MODE_PASS;
  return hal_it9305_pidfilter_modes[mode];
}

hal_err_t hal_translate_it9305_err(it9305_err_t err) { return err == 0 ? HAL_OK : HAL_TSMUX_ERR; }

hal_it9305_t* new_hal_it9305([[maybe_unused]] const char* name, [[maybe_unused]] uint8_t i2c_addr,
                             [[maybe_unused]] hal_i2c_t* hal_i2c, [[maybe_unused]] uint8_t ts_clock_divider,
                             [[maybe_unused]] const gpio_t& reset) {
  hal_it9305_t* chip = hal_new<hal_it9305_t>(HAL_IT9305, delete_hal_it9305, __func__);
  if (chip == NULL) return NULL;
  chip->hal_object.user = &chip->it9305;
  chip->hal_object.strerror = hal_it9305_strerror;
  return chip;
}

void delete_hal_it9305(hal_object_t* object) { delete_hal_object(object); }

hal_tsmux_5x1_t* new_hal_it9305_tsmux_5x1(hal_it9305_t* hal_it9305, hal_tsmux_tsin_t tsin_0,
                                          hal_tsmux_tsin_t tsin_1, hal_tsmux_tsin_t tsin_2,
                                          hal_tsmux_tsin_t tsin_3, hal_tsmux_tsin_t tsin_4) {
  hal_tsmux_5x1_t* mux = new_hal_tsmux_5x1(tsin_0, tsin_1, tsin_2, tsin_3, tsin_4);
  if (mux == NULL) {
    DBG_WRN("Could not create");
    return NULL;
  }
  mux->hal_object.user = hal_it9305;
  mux->hal_object.strerror = hal_it9305->hal_object.strerror;
  mux->init.pidfilter = hal_it9305_pidfilter_init;
  mux->add.pidfilter_pid = hal_it9305_pidfilter_add_pid;
  mux->set.enabled = hal_it9305_set_enabled;
  return mux;
}

static hal_err_t hal_it9305_result(hal_it9305_t* chip, it9305_err_t err) {
  return chip->hal_object.err = hal_translate_it9305_err(err);
}

hal_err_t hal_it9305_pidfilter_init(void* hal_it9305, uint8_t ts_index, hal_pidfilter_mode_t mode) {
  hal_it9305_t* chip = static_cast<hal_it9305_t*>(hal_it9305);
  return hal_it9305_result(
      chip, it9305_pidfilter_init(&chip->it9305, ts_index, hal_to_it9305_pidfilter_mode(mode)));
}

hal_err_t hal_it9305_pidfilter_add_pid(void* hal_it9305, uint8_t ts_index, uint16_t pid) {
  hal_it9305_t* chip = static_cast<hal_it9305_t*>(hal_it9305);
  return hal_it9305_result(chip, it9305_pidfilter_add_pid(&chip->it9305, ts_index, pid));
}

hal_err_t hal_it9305_set_enabled(void* hal_it9305, uint8_t ts_index, uint8_t enabled) {
  hal_it9305_t* chip = static_cast<hal_it9305_t*>(hal_it9305);
  return hal_it9305_result(chip, it9305_set_enabled(&chip->it9305, ts_index, enabled));
}

/* A multiplexer made on the chip has the chip object as its user. */
const char* hal_it9305_strerror(hal_object_t* object) {
  hal_it9305_t* chip = object->type == HAL_IT9305 ? reinterpret_cast<hal_it9305_t*>(object)
                                                  : static_cast<hal_it9305_t*>(object->user);
  return it9305_strerror(&chip->it9305);
}
