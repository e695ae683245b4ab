#include "hal_input_hdmi.h"

#include "dbg.h"

static const hal_poll_ops_t hal_input_hdmi_poll_ops = {
    "hal_input_hdmi",
    hal_poll_changed<hal_input_hdmi_t, hal_input_hdmi_changed>,
    NULL,
    hal_poll_step<hal_input_hdmi_t, hal_input_hdmi_apply>,
    offsetof(hal_input_hdmi_t, sync_required),
    offsetof(hal_input_hdmi_t, apply_required),
};

hal_input_hdmi_t* new_hal_input_hdmi(void) {
  hal_input_hdmi_t* hdmi = hal_new<hal_input_hdmi_t>(HAL_INPUT_HDMI, delete_hal_input_hdmi, __func__);
  if (hdmi != NULL) hal_poll_register(HAL_INPUT_HDMI, &hal_input_hdmi_poll_ops);
  return hdmi;
}

void delete_hal_input_hdmi(hal_object_t* object) {
  hal_ts_delete(reinterpret_cast<hal_input_hdmi_t*>(object)->tsout);
  delete_hal_object(object);
}

HAL_VALUE_ACCESSORS(hal_input_hdmi, video_bitrate, video_bitrate, settings.video_bitrate_kbps, uint16_t)
HAL_VALUE_ACCESSORS(hal_input_hdmi, video_gopsize, video_gopsize, settings.video_gopsize, uint8_t)
HAL_VALUE_ACCESSORS(hal_input_hdmi, audio_bitrate, audio_bitrate, settings.audio_bitrate_kbps, uint16_t)

hal_err_t hal_input_hdmi_set_all(hal_input_hdmi_t* hdmi) {
  static hal_err_t (*const steps[])(hal_input_hdmi_t*) = {
      [](hal_input_hdmi_t* h) { return hal_input_hdmi_set_video_bitrate(h, h->settings.video_bitrate_kbps); },
      [](hal_input_hdmi_t* h) { return hal_input_hdmi_set_video_gopsize(h, h->settings.video_gopsize); },
      [](hal_input_hdmi_t* h) { return hal_input_hdmi_set_audio_bitrate(h, h->settings.audio_bitrate_kbps); },
  };
  return hal_run_all(hdmi, steps);
}

hal_err_t hal_input_hdmi_get_all(hal_input_hdmi_t* hdmi) {
  static hal_err_t (*const steps[])(hal_input_hdmi_t*) = {
      [](hal_input_hdmi_t* h) {
        return hal_input_hdmi_get_video_bitrate(h, &h->settings.video_bitrate_kbps);
      },
      [](hal_input_hdmi_t* h) { return hal_input_hdmi_get_video_gopsize(h, &h->settings.video_gopsize); },
      [](hal_input_hdmi_t* h) {
        return hal_input_hdmi_get_audio_bitrate(h, &h->settings.audio_bitrate_kbps);
      },
  };
  return hal_run_all(hdmi, steps);
}

hal_err_t hal_input_hdmi_get_status(hal_input_hdmi_t* hdmi) {
  return hal_pass(&hdmi->hal_object, hdmi->get.status, &hdmi->status);
}

hal_err_t hal_input_hdmi_set_hw_debug_code(hal_input_hdmi_t* hdmi, uint8_t code, uint8_t enable) {
  return hal_pass(&hdmi->hal_object, hdmi->set.hw_debug_code, code, enable);
}

hal_err_t hal_input_hdmi_get_hw_debug_code(hal_input_hdmi_t* hdmi, uint8_t code, uint8_t* enable) {
  return hal_pass(&hdmi->hal_object, hdmi->get.hw_debug_code, code, enable);
}

hal_ts_t* hal_input_hdmi_find_ts_by_tag(hal_input_hdmi_t* hdmi, uint32_t ts_tag) {
  return hdmi->tsout != NULL && hdmi->tsout->tag == ts_tag ? hdmi->tsout : NULL;
}

static uint8_t hal_input_hdmi_settings_changed(hal_input_hdmi_t* hdmi, uint8_t update_crc) {
  return hal_settings_changed(&hdmi->settings, sizeof(hdmi->settings), &hdmi->settings_crc, update_crc);
}

/* Both tests always run, so that both checksums are taken in by the same call. */
uint8_t hal_input_hdmi_changed(hal_input_hdmi_t* hdmi) {
  if (hal_input_hdmi_settings_changed(hdmi, 1)) hdmi->apply_required = 1;
  if (hal_ts_changed(hdmi->tsout, 1)) hdmi->apply_required = 1;
  return hdmi->apply_required;
}

/* A failed apply leaves apply_required set: the next poll cycle tries again. */
hal_err_t hal_input_hdmi_apply(hal_input_hdmi_t* hdmi) {
  DBG_MSG("<APPLY> hal_input_hdmi");
  DBG_MSG("<APPLY_SETTINGS>");
  if (hal_pass(&hdmi->hal_object, hdmi->apply) != HAL_OK) return hdmi->hal_object.err;
  DBG_MSG("</APPLY_SETTINGS>");
  DBG_MSG("</APPLY> hal_input_hdmi");
  hdmi->apply_required = 0;
  return HAL_OK;
}
