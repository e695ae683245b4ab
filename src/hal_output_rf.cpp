#include "hal_output_rf.h"

#include "dbg.h"

static const hal_poll_ops_t hal_output_rf_poll_ops = {
    "hal_output_rf",
    hal_poll_changed<hal_output_rf_t, hal_output_rf_changed>,
    hal_poll_step<hal_output_rf_t, hal_output_rf_sync>,
    hal_poll_step<hal_output_rf_t, hal_output_rf_apply>,
    offsetof(hal_output_rf_t, sync_required),
    offsetof(hal_output_rf_t, apply_required),
};

/* The sync's warnings: "F" for a service gone from tsin, "G" for a stream. */
static const hal_ts_mirror_t hal_output_rf_mirror = {"hal_output_rf_sync", "F", "G"};

hal_output_rf_t* new_hal_output_rf(hal_ts_t* tsin) {
  hal_output_rf_t* rf = hal_ts_new_producer<hal_output_rf_t>(HAL_OUTPUT_RF, delete_hal_output_rf, __func__);
  if (rf == NULL) return NULL;
  rf->tsin = tsin;
  hal_poll_register(HAL_OUTPUT_RF, &hal_output_rf_poll_ops);
  return rf;
}

/* tsin belongs to whoever produces it. */
void delete_hal_output_rf(hal_object_t* object) {
  hal_ts_delete(reinterpret_cast<hal_output_rf_t*>(object)->tsout);
  delete_hal_object(object);
}

HAL_VALUE_ACCESSORS(hal_output_rf, type, type, settings.type, hal_output_type_t)
HAL_VALUE_ACCESSORS(hal_output_rf, level, level, settings.level_dbm, int8_t)
HAL_VALUE_ACCESSORS(hal_output_rf, enable, enable, settings.enable, uint8_t)
HAL_VALUE_ACCESSORS(hal_output_rf, frequency, frequency, settings.frequency_khz, uint32_t)
HAL_VALUE_ACCESSORS(hal_output_rf, bandwidth, bandwidth, settings.bandwidth_mhz, uint8_t)
HAL_VALUE_ACCESSORS(hal_output_rf, symbolrate, symbolrate, settings.symbolrate_kbaud, uint16_t)
HAL_VALUE_ACCESSORS(hal_output_rf, constellation, constellation, settings.constellation, hal_constellation_t)
HAL_VALUE_ACCESSORS(hal_output_rf, guardinterval, guardinterval, settings.guardinterval, hal_guardinterval_t)
HAL_VALUE_ACCESSORS(hal_output_rf, coderate, coderate, settings.coderate, hal_coderate_t)
HAL_VALUE_ACCESSORS(hal_output_rf, fftmode, fftmode, settings.fftmode, hal_fftmode_t)
HAL_VALUE_ACCESSORS(hal_output_rf, carriertype, carriertype, settings.carriertype, hal_carriertype_t)
HAL_VALUE_ACCESSORS(hal_output_rf, interleave, interleave, settings.interleave, hal_interleave_t)
HAL_VALUE_ACCESSORS(hal_output_rf, syncframe, syncframe, settings.syncframe, hal_syncframe_t)

/* The modulator derives its level from the frequency: the frequency goes first. */
hal_err_t hal_output_rf_set_all(hal_output_rf_t* rf) {
  static hal_err_t (*const steps[])(hal_output_rf_t*) = {
      [](hal_output_rf_t* r) { return hal_output_rf_set_type(r, r->settings.type); },
      [](hal_output_rf_t* r) { return hal_output_rf_set_enable(r, r->settings.enable); },
      [](hal_output_rf_t* r) { return hal_output_rf_set_frequency(r, r->settings.frequency_khz); },
      [](hal_output_rf_t* r) { return hal_output_rf_set_level(r, r->settings.level_dbm); },
      [](hal_output_rf_t* r) { return hal_output_rf_set_bandwidth(r, r->settings.bandwidth_mhz); },
      [](hal_output_rf_t* r) { return hal_output_rf_set_symbolrate(r, r->settings.symbolrate_kbaud); },
      [](hal_output_rf_t* r) { return hal_output_rf_set_constellation(r, r->settings.constellation); },
      [](hal_output_rf_t* r) { return hal_output_rf_set_guardinterval(r, r->settings.guardinterval); },
      [](hal_output_rf_t* r) { return hal_output_rf_set_coderate(r, r->settings.coderate); },
      [](hal_output_rf_t* r) { return hal_output_rf_set_fftmode(r, r->settings.fftmode); },
      [](hal_output_rf_t* r) { return hal_output_rf_set_carriertype(r, r->settings.carriertype); },
      [](hal_output_rf_t* r) { return hal_output_rf_set_interleave(r, r->settings.interleave); },
      [](hal_output_rf_t* r) { return hal_output_rf_set_syncframe(r, r->settings.syncframe); },
  };
  return hal_run_all(rf, steps);
}

/* Read back in the modulator's own order, level before frequency. */
hal_err_t hal_output_rf_get_all(hal_output_rf_t* rf) {
  static hal_err_t (*const steps[])(hal_output_rf_t*) = {
      [](hal_output_rf_t* r) { return hal_output_rf_get_type(r, &r->settings.type); },
      [](hal_output_rf_t* r) { return hal_output_rf_get_enable(r, &r->settings.enable); },
      [](hal_output_rf_t* r) { return hal_output_rf_get_level(r, &r->settings.level_dbm); },
      [](hal_output_rf_t* r) { return hal_output_rf_get_frequency(r, &r->settings.frequency_khz); },
      [](hal_output_rf_t* r) { return hal_output_rf_get_bandwidth(r, &r->settings.bandwidth_mhz); },
      [](hal_output_rf_t* r) { return hal_output_rf_get_symbolrate(r, &r->settings.symbolrate_kbaud); },
      [](hal_output_rf_t* r) { return hal_output_rf_get_constellation(r, &r->settings.constellation); },
      [](hal_output_rf_t* r) { return hal_output_rf_get_guardinterval(r, &r->settings.guardinterval); },
      [](hal_output_rf_t* r) { return hal_output_rf_get_coderate(r, &r->settings.coderate); },
      [](hal_output_rf_t* r) { return hal_output_rf_get_fftmode(r, &r->settings.fftmode); },
      [](hal_output_rf_t* r) { return hal_output_rf_get_carriertype(r, &r->settings.carriertype); },
      [](hal_output_rf_t* r) { return hal_output_rf_get_interleave(r, &r->settings.interleave); },
      [](hal_output_rf_t* r) { return hal_output_rf_get_syncframe(r, &r->settings.syncframe); },
  };
  return hal_run_all(rf, steps);
}

hal_err_t hal_output_rf_get_status(hal_output_rf_t* rf) {
  return hal_pass(&rf->hal_object, rf->get.status, &rf->status);
}

static uint32_t hal_output_rf_service_bitrate(hal_service_t* service) {
  uint32_t bitrate_kbps = 0;
  lnklist_node_t* node;
  FOREACH_NODE(&service->stream_list, node) {
    bitrate_kbps += reinterpret_cast<hal_stream_t*>(node)->settings.bitrate_kbps;
  }
  return bitrate_kbps;
}

hal_err_t hal_output_rf_get_bitrate(hal_output_rf_t* rf, uint32_t* bitrate_kbps) {
  *bitrate_kbps = 0;
  lnklist_node_t* node;
  FOREACH_NODE(&rf->tsout->service_list, node) {
    hal_service_t* service = reinterpret_cast<hal_service_t*>(node);
    if (service->enabled) *bitrate_kbps += hal_output_rf_service_bitrate(service);
  }
  return HAL_OK;
}

hal_err_t hal_output_rf_set_cal(hal_output_rf_t* rf, int8_t i, int8_t q, uint8_t enable) {
  return hal_pass(&rf->hal_object, rf->set.calibration, i, q, enable);
}

hal_err_t hal_output_rf_get_cal(hal_output_rf_t* rf, int8_t* i, int8_t* q) {
  return hal_pass(&rf->hal_object, rf->get.calibration, i, q);
}

static uint8_t hal_output_rf_settings_changed(hal_output_rf_t* rf, uint8_t update_crc) {
  return hal_settings_changed(&rf->settings, sizeof(rf->settings), &rf->settings_crc, update_crc);
}

/* A change of tsout only owes a sync: the sync itself decides what reaches the modulator. tsin
 * is its producer's to take in, so it keeps reporting until then. */
uint8_t hal_output_rf_changed(hal_output_rf_t* rf) {
  if (hal_ts_changed(rf->tsout, 1)) rf->sync_required = 1;
  if (hal_output_rf_settings_changed(rf, 1)) rf->apply_required = 1;
  if (hal_ts_changed(rf->tsin, 0)) rf->sync_required = 1;
  return rf->sync_required | rf->apply_required;
}

/* Services and their settings flow from tsin to tsout; the network identity and each service's
 * on/off switch, the operator's only choices here, flow back into tsin and its PSI. */
hal_err_t hal_output_rf_sync(hal_output_rf_t* rf) {
  DBG_MSG("<SYNC> hal_output_rf");
  hal_ts_mirror_output(rf->tsin, rf->tsout, &hal_output_rf_mirror);
  DBG_MSG("</SYNC> hal_output_rf");
  rf->sync_required = 0;
  rf->hal_object.err = HAL_OK;
  return HAL_OK;
}

/* A failed apply leaves apply_required set: the next poll cycle tries again. */
hal_err_t hal_output_rf_apply(hal_output_rf_t* rf) {
  DBG_MSG("<APPLY> hal_output_rf");
  DBG_MSG("<APPLY_SETTINGS>");
  if (hal_pass(&rf->hal_object, rf->apply) != HAL_OK) return rf->hal_object.err;
  DBG_MSG("</APPLY_SETTINGS>");
  DBG_MSG("</APPLY>");
  rf->apply_required = 0;
  return HAL_OK;
}
