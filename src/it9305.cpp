#include "it9305.h"

#include <stdio.h>
#include <string.h>

#include "dbg.h"

/* Each record describes exactly one chip. */
static constexpr uint8_t it9305_chip = 0;

/* Rotated by one on purpose: input i goes to port i + 1, and input 4 to port 0. */
static constexpr uint8_t it9305_ts_ports[IT9300_TS_INPUTS] = {TS_PORT_1, TS_PORT_2, TS_PORT_3, TS_PORT_4,
                                                              TS_PORT_0};

/* Writing 1 to each of these switches on the PCR restamping of the merged stream. */
static constexpr uint32_t it9305_pcr_restamping_registers[] = {0xDAE0, 0xDAE1, 0xDAE2, 0xDAE3, 0xDAE4};

/* One chip on the I2C bus, booted by its own script, with five serial inputs and a serial
 * output of 188-byte packets; everything not named stays zero. */
static void it9305_describe(Endeavour* endeavour, i2c_t* i2c, uint8_t i2c_addr) {
  memset(endeavour, 0, sizeof(*endeavour));
  endeavour->bypassBoot = False;
  endeavour->bypassScript = True;
  endeavour->ctrlBus = BUS_I2C;
  endeavour->maxBusTxSize = 255;
  endeavour->chipCount = 1;
  endeavour->userData = i2c;
  endeavour->gator[it9305_chip] = {True, i2c_addr, OUT_DATA_TS_SERIAL, PKT_LEN_188};
  for (int i = 0; i < IT9300_TS_INPUTS; i++) {
    endeavour->tsSource[it9305_chip][i] = {True, TS_SERIAL, it9305_ts_ports[i]};
  }
}

/* The GPIO warnings do not name the chip. */
static it9305_err_t it9305_hard_reset(it9305_t* it9305) {
  it9305->err = gpio_set_direction(&it9305->reset, 0);
  if (it9305->err != GPIO_NO_ERR) {
    DBG_WRN_AT("it9305_init", "Could not set direction of IT930x reset GPIO [Error: %d]",
               static_cast<int>(it9305->err));
    return it9305->err;
  }
  it9305->err = gpio_toggle_reset(&it9305->reset, 0);
  if (it9305->err != GPIO_NO_ERR) {
    DBG_WRN_AT("it9305_init", "Could not hard reset IT930x [Error: %d]", static_cast<int>(it9305->err));
  }
  return it9305->err;
}

static it9305_err_t it9305_enable_pcr_restamping(it9305_t* it9305) {
  for (uint32_t reg : it9305_pcr_restamping_registers) {
    it9305->err = IT9300_writeRegister(&it9305->endeavour, it9305_chip, reg, 1);
    if (it9305->err != IT9300_OK) {
      DBG_WRN_AT("it9305_init", "%s - Could not enable PCR restamping (error: %d)", it9305->name,
                 static_cast<int>(it9305->err));
      return it9305->err;
    }
  }
  return it9305->err;
}

it9305_err_t it9305_init(it9305_t* it9305, const char* name, uint8_t i2c_addr, i2c_t* i2c,
                         uint8_t ts_clock_divider, const gpio_t& reset) {
  snprintf(it9305->name, sizeof(it9305->name), "%s", name);
  it9305->i2c = i2c;
  it9305->i2c_addr = i2c_addr;
  it9305->pidfilter_index = 0;
  it9305->reset = reset;
  it9305_describe(&it9305->endeavour, i2c, i2c_addr);
  if (it9305_hard_reset(it9305) != GPIO_NO_ERR) return it9305->err;
  it9305->err = IT9300_initialize(&it9305->endeavour, it9305_chip, ts_clock_divider);
  if (it9305->err != IT9300_OK) {
    DBG_WRN("%s - Could not initialize (error: %d)", it9305->name, static_cast<int>(it9305->err));
    return it9305->err;
  }
  return it9305_enable_pcr_restamping(it9305);
}

it9305_err_t it9305_pidfilter_init(it9305_t* it9305, uint8_t ts_index, PID_FILTER_MODE mode) {
  it9305->err = IT9300_simplePidFilter_ResetPidTable(&it9305->endeavour, it9305_chip, ts_index);
  if (it9305->err != IT9300_OK) {
    DBG_WRN("%s - Could not reset PID filter for TS input %d (error: %d)", it9305->name, ts_index,
            static_cast<int>(it9305->err));
    return it9305->err;
  }
  it9305->pidfilter_index = 0;
  it9305->err = IT9300_simplePidFilter_SetMode(&it9305->endeavour, it9305_chip, ts_index, mode);
  if (it9305->err != IT9300_OK) {
    DBG_WRN("%s - Could not set PID filter mode for TS input %d (error: %d)", it9305->name, ts_index,
            static_cast<int>(it9305->err));
  }
  return it9305->err;
}

it9305_err_t it9305_pidfilter_add_pid(it9305_t* it9305, uint8_t ts_index, uint16_t pid) {
  const uint8_t entry = it9305->pidfilter_index++;
  it9305->err = IT9300_simplePidFilter_AddPid(&it9305->endeavour, it9305_chip, ts_index, pid, entry);
  if (it9305->err != IT9300_OK) {
    DBG_WRN("%s - Could not add PID <%d> to PID filter mode for TS input %d (error: %d)", it9305->name, pid,
            ts_index, static_cast<int>(it9305->err));
  }
  return it9305->err;
}

it9305_err_t it9305_set_enabled(it9305_t* it9305, uint8_t ts_index, uint8_t enabled) {
  if (enabled) {
    it9305->err = IT9300_enableTsPort(&it9305->endeavour, it9305_chip, ts_index);
    if (it9305->err != IT9300_OK) {
      DBG_WRN("%s - Could not enable TS %d (error: %d)", it9305->name, ts_index,
              static_cast<int>(it9305->err));
    }
  } else {
    it9305->err = IT9300_disableTsPort(&it9305->endeavour, it9305_chip, ts_index);
    if (it9305->err != IT9300_OK) {
      DBG_WRN("%s - Could not disable TS %d (error: %d)", it9305->name, ts_index,
              static_cast<int>(it9305->err));
    }
  }
  return it9305->err;
}

const char* it9305_strerror(it9305_t* it9305) {
  static char text[IT9305_STRERROR_LEN];
  if (it9305->err == IT9300_OK) {
    snprintf(text, sizeof(text), "tsmux ok");
  } else {
    snprintf(text, sizeof(text), "tsmux error: %d", static_cast<int>(it9305->err));
  }
  return text;
}
