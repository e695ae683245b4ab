#ifndef HAL_DEVICE_H
#define HAL_DEVICE_H

#include <stdint.h>

#include "hal.h"

typedef enum hal_device_output_mode_t : int {
  HAL_DEVICE_IP_SPTS = 0,
  HAL_DEVICE_IP_MPTS = 1,
  HAL_DEVICE_RF = 2,
} hal_device_output_mode_t;

typedef struct alarm_led_t {
  const char* brightness;
  const char* trigger;
} alarm_led_t;

typedef struct temp_sensor_t {
  const char* temperature; /* millidegrees Celsius, decimal text */
} temp_sensor_t;

typedef struct hal_device_status_t {
  uint32_t temperature;
} hal_device_status_t;

/* The box itself: output mode, alarm LED and temperature. It takes no part in the poll cycle;
 * its operations act at once. */
typedef struct hal_device_t {
  hal_object_t hal_object;
  uint8_t sync_required;
  uint8_t apply_required;
  uint32_t settings_crc;
  alarm_led_t alarm_led;
  temp_sensor_t temp_sensor;
  struct {
    hal_err_t (*output_mode)(void* user, hal_device_output_mode_t output_mode);
  } set;
  struct {
    hal_err_t (*output_mode)(void* user, hal_device_output_mode_t* output_mode);
  } get;
  struct {
    hal_device_output_mode_t output_mode;
  } settings;
  hal_device_status_t status;
} hal_device_t;

hal_device_t* new_hal_device(alarm_led_t alarm_led, temp_sensor_t temp_sensor,
                             hal_device_output_mode_t device_output_mode);
void delete_hal_device(hal_object_t* object);
hal_err_t hal_device_set_output_mode(hal_device_t* device, hal_device_output_mode_t output_mode);
hal_err_t hal_device_get_output_mode(hal_device_t* device, hal_device_output_mode_t* output_mode);
hal_err_t hal_device_clear_alarm_led(hal_device_t* device);
hal_err_t hal_device_update_temperature(hal_device_t* device);

#endif
