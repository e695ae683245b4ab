#include "hal_device.h"

#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include "boxroot.h"
#include "dbg.h"

#define HAL_DEVICE_CMD_LEN 255

hal_device_t* new_hal_device(alarm_led_t alarm_led, temp_sensor_t temp_sensor,
                             hal_device_output_mode_t device_output_mode) {
  hal_device_t* device = hal_new<hal_device_t>(HAL_DEVICE, delete_hal_device, __func__);
  if (device == NULL) return NULL;
  device->alarm_led = alarm_led;
  device->temp_sensor = temp_sensor;
  device->settings.output_mode = device_output_mode;
  return device;
}

void delete_hal_device(hal_object_t* object) { delete_hal_object(object); }

static const char* hal_device_mode_name(hal_device_output_mode_t output_mode) {
  switch (output_mode) {
    case HAL_DEVICE_IP_SPTS:
      return "ip_spts";
    case HAL_DEVICE_IP_MPTS:
      return "ip_mpts";
    case HAL_DEVICE_RF:
      return "rf";
  }
  return NULL;
}

/* The stored settings are replaced by the new mode's defaults, then the daemon restarts in it. */
hal_err_t hal_device_set_output_mode(hal_device_t* device, hal_device_output_mode_t output_mode) {
  if (output_mode == device->settings.output_mode) return HAL_OK;
  if (device->set.output_mode != NULL) {
    device->hal_object.err = device->set.output_mode(device->hal_object.user, output_mode);
    if (device->hal_object.err != HAL_OK) return device->hal_object.err;
  }
  const char* name = hal_device_mode_name(output_mode);
  if (name == NULL) return device->hal_object.err = HAL_SETTING_OOB;
  char box_command[HAL_DEVICE_CMD_LEN];
  snprintf(box_command, sizeof(box_command), "cp -rf /opt/bin/default_settings_%s.conf /data/settings.conf",
           name);
  if (boxroot_system(box_command) != 0) return HAL_ERR;
  /* The daemon's handler restarts it, in the new mode. */
  (void)raise(SIGUSR1);
  // cppcheck-suppress unreachableCode ; raise returns: the daemon handles SIGUSR1
  device->settings.output_mode = output_mode;
  return HAL_OK;
}

hal_err_t hal_device_get_output_mode(hal_device_t* device, hal_device_output_mode_t* output_mode) {
  if (device->get.output_mode != NULL) {
    device->hal_object.err = device->get.output_mode(device->hal_object.user, &device->settings.output_mode);
    if (device->hal_object.err != HAL_OK) return device->hal_object.err;
  }
  *output_mode = device->settings.output_mode;
  return device->hal_object.err = HAL_OK;
}

static int hal_device_write_file(const char* box_path, const char* text) {
  char path[BOXROOT_PATH_LEN];
  FILE* file = fopen(boxroot_path(path, sizeof(path), box_path), "we");
  if (file == NULL) return -1;
  fputs(text, file);
  /* An LED file counts as written once it opened: only a failed open is reported. */
  (void)fclose(file);
  return 0;
}

/* The assembly always creates the device; without one (an empty registry) there is no LED. */
hal_err_t hal_device_clear_alarm_led(hal_device_t* device) {
  if (device == NULL) return HAL_ERR;
  if (hal_device_write_file(device->alarm_led.trigger, "none") != 0) {
    DBG_WRN("Could not open alarm led trigger...");
    return device->hal_object.err = HAL_ERR;
  }
  if (hal_device_write_file(device->alarm_led.brightness, "0") != 0) {
    DBG_WRN("Could not open alarm led brightness...");
    return device->hal_object.err = HAL_ERR;
  }
  return device->hal_object.err = HAL_OK;
}

/* A decimal number after optional white space; a file without one, or with one out of range,
 * leaves `value` as it was. */
static bool hal_device_read_int(FILE* file, int* value) {
  char text[32];
  size_t length = fread(text, 1, sizeof(text) - 1, file);
  text[length] = '\0';
  char* end = NULL;
  errno = 0;
  long long number = strtoll(text, &end, 10);
  if (end == text || errno == ERANGE || number < INT_MIN || number > INT_MAX) return false;
  *value = static_cast<int>(number);
  return true;
}

hal_err_t hal_device_update_temperature(hal_device_t* device) {
  if (device == NULL) return HAL_ERR;
  char path[BOXROOT_PATH_LEN];
  FILE* file = fopen(boxroot_path(path, sizeof(path), device->temp_sensor.temperature), "re");
  if (file == NULL) {
    DBG_WRN("Could not open temp sensor...");
    return device->hal_object.err = HAL_ERR;
  }
  int temperature = 0;
  if (hal_device_read_int(file, &temperature))
    device->status.temperature = static_cast<uint32_t>(temperature);
  (void)fclose(file); /* read only */
  return device->hal_object.err = HAL_OK;
}
