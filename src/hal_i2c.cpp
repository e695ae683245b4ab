#include "hal_i2c.h"

#include "dbg.h"

hal_i2c_t* new_hal_i2c(const char* name, const char* dev) {
  hal_i2c_t* hal_i2c = hal_new<hal_i2c_t>(HAL_I2C, delete_hal_i2c, __func__);
  if (hal_i2c == NULL) return NULL;
  hal_i2c->hal_object.user = &hal_i2c->i2c;
  hal_i2c->hal_object.strerror = hal_i2c_strerror;
  if (i2c_init(&hal_i2c->i2c, name, dev) != I2C_OK) {
    DBG_WRN("Could not create");
    hal_i2c->hal_object.delete_(&hal_i2c->hal_object);
    return NULL;
  }
  hal_i2c->open = hal_i2c_open;
  hal_i2c->close = hal_i2c_close;
  hal_i2c->read = hal_i2c_read;
  hal_i2c->write = hal_i2c_write;
  return hal_i2c;
}

/* Nothing to close: no transaction leaves the bus open. */
void delete_hal_i2c(hal_object_t* object) { delete_hal_object(object); }

hal_err_t hal_translate_i2c_err(i2c_err_t err) { return err == I2C_OK ? HAL_OK : HAL_I2C_ERR; }

static hal_err_t hal_i2c_result(hal_i2c_t* hal_i2c, i2c_err_t err) {
  hal_i2c->hal_object.err = hal_translate_i2c_err(err);
  return hal_i2c->hal_object.err;
}

hal_err_t hal_i2c_open(hal_i2c_t* hal_i2c, uint8_t slave_addr) {
  return hal_i2c_result(hal_i2c, i2c_open(&hal_i2c->i2c, slave_addr));
}

hal_err_t hal_i2c_close(hal_i2c_t* hal_i2c) { return hal_i2c_result(hal_i2c, i2c_close(&hal_i2c->i2c)); }

hal_err_t hal_i2c_write(hal_i2c_t* hal_i2c, const uint8_t* data, uint32_t size, uint32_t timeout_ms) {
  return hal_i2c_result(hal_i2c, i2c_write(&hal_i2c->i2c, data, size, timeout_ms));
}

hal_err_t hal_i2c_read(hal_i2c_t* hal_i2c, uint8_t* data, uint32_t size, uint32_t timeout_ms) {
  return hal_i2c_result(hal_i2c, i2c_read(&hal_i2c->i2c, data, size, timeout_ms));
}

const char* hal_i2c_strerror(hal_object_t* object) {
  return i2c_strerror(&reinterpret_cast<hal_i2c_t*>(object)->i2c);
}
