#ifndef HAL_INPUT_HDMI_H
#define HAL_INPUT_HDMI_H

#include <stdint.h>

#include "hal.h"
#include "hal_ts.h"

/* The input as last read from the encoder; shown as "%u%c%u" (height, scan letter, rate). */
typedef struct hal_input_hdmi_status_t {
  uint8_t lock;
  uint16_t video_height;
  char video_scan_mode;
  uint8_t video_frame_rate;
} hal_input_hdmi_status_t;

typedef struct hal_input_hdmi_settings_t {
  uint16_t video_bitrate_kbps;
  uint8_t video_gopsize;
  uint16_t audio_bitrate_kbps;
} hal_input_hdmi_settings_t;

/* One HDMI input with its encoder. Every operation may be null: the field then lives in memory
 * only. */
typedef struct hal_input_hdmi_t {
  hal_object_t hal_object;
  hal_ts_t* tsout;       /* the TS the encoder produces; owned */
  uint8_t sync_required; /* never used: an input has no sync step */
  uint8_t apply_required;
  uint32_t settings_crc;
  hal_err_t (*apply)(void* user); /* pushes every setting and the PSI at once */
  struct {
    hal_err_t (*video_bitrate)(void* user, uint16_t video_bitrate_kbps);
    hal_err_t (*video_gopsize)(void* user, uint8_t video_gopsize);
    hal_err_t (*audio_bitrate)(void* user, uint16_t audio_bitrate_kbps);
    hal_err_t (*hw_debug_code)(void* user, uint8_t code, uint8_t enable);
  } set;
  struct {
    hal_err_t (*video_bitrate)(void* user, uint16_t* video_bitrate_kbps);
    hal_err_t (*video_gopsize)(void* user, uint8_t* video_gopsize);
    hal_err_t (*audio_bitrate)(void* user, uint16_t* audio_bitrate_kbps);
    hal_err_t (*status)(void* user, hal_input_hdmi_status_t* status);
    hal_err_t (*hw_debug_code)(void* user, uint8_t code, uint8_t* enable);
  } get;
  hal_input_hdmi_settings_t settings;
  hal_input_hdmi_status_t status;
} hal_input_hdmi_t;

/* A zero-filled input with no operations and no tsout yet: its creator attaches both. */
hal_input_hdmi_t* new_hal_input_hdmi(void);
/* Deletes tsout with the input. */
void delete_hal_input_hdmi(hal_object_t* object);

hal_err_t hal_input_hdmi_set_video_bitrate(hal_input_hdmi_t* hdmi, uint16_t video_bitrate_kbps);
hal_err_t hal_input_hdmi_set_video_gopsize(hal_input_hdmi_t* hdmi, uint8_t video_gopsize);
hal_err_t hal_input_hdmi_set_audio_bitrate(hal_input_hdmi_t* hdmi, uint16_t audio_bitrate_kbps);
hal_err_t hal_input_hdmi_get_video_bitrate(hal_input_hdmi_t* hdmi, uint16_t* video_bitrate_kbps);
hal_err_t hal_input_hdmi_get_video_gopsize(hal_input_hdmi_t* hdmi, uint8_t* video_gopsize);
hal_err_t hal_input_hdmi_get_audio_bitrate(hal_input_hdmi_t* hdmi, uint16_t* audio_bitrate_kbps);
hal_err_t hal_input_hdmi_set_all(hal_input_hdmi_t* hdmi);
/* Loads the encoder's current values into the settings. */
hal_err_t hal_input_hdmi_get_all(hal_input_hdmi_t* hdmi);

/* Refreshes `status`; without a status operation it stays as it was. */
hal_err_t hal_input_hdmi_get_status(hal_input_hdmi_t* hdmi);
/* Straight to the encoder; nothing is kept in the object. */
hal_err_t hal_input_hdmi_set_hw_debug_code(hal_input_hdmi_t* hdmi, uint8_t code, uint8_t enable);
hal_err_t hal_input_hdmi_get_hw_debug_code(hal_input_hdmi_t* hdmi, uint8_t code, uint8_t* enable);

hal_ts_t* hal_input_hdmi_find_ts_by_tag(hal_input_hdmi_t* hdmi, uint32_t ts_tag);

/* Takes in changes of the settings and of tsout; returns apply_required. */
uint8_t hal_input_hdmi_changed(hal_input_hdmi_t* hdmi);
hal_err_t hal_input_hdmi_apply(hal_input_hdmi_t* hdmi);

#endif
