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
  hal_output_rf_t* rf = reinterpret_cast<hal_output_rf_t*>(hal_object_alloc(sizeof(hal_output_rf_t)));
  if (rf == NULL) {
    DBG_WRN("Could not create");
    return NULL;
  }
  rf->hal_object.type = HAL_OUTPUT_RF;
  rf->hal_object.delete_ = delete_hal_output_rf;
  rf->tsin = tsin;
  rf->tsout = new_hal_ts();
  if (rf->tsout == NULL) {
    DBG_WRN("Could not create");
    delete_hal_output_rf(&rf->hal_object);
    return NULL;
  }
  hal_poll_register(HAL_OUTPUT_RF, &hal_output_rf_poll_ops);
  return rf;
}

/* tsin belongs to whoever produces it. */
void delete_hal_output_rf(hal_object_t* object) {
  hal_ts_t* tsout = reinterpret_cast<hal_output_rf_t*>(object)->tsout;
  if (tsout != NULL && tsout->hal_object.delete_ != NULL) tsout->hal_object.delete_(&tsout->hal_object);
  delete_hal_object(object);
}

#define HAL_OUTPUT_RF_ACCESSORS(field, stored, T)                                         \
  hal_err_t hal_output_rf_set_##field(hal_output_rf_t* rf, T value) {                     \
    return hal_set_value<T>(&rf->hal_object, rf->set.field, &rf->settings.stored, value); \
  }                                                                                       \
  hal_err_t hal_output_rf_get_##field(hal_output_rf_t* rf, T* value) {                    \
    return hal_get_value<T>(&rf->hal_object, rf->get.field, &rf->settings.stored, value); \
  }

HAL_OUTPUT_RF_ACCESSORS(type, type, hal_output_type_t)
HAL_OUTPUT_RF_ACCESSORS(level, level_dbm, int8_t)
HAL_OUTPUT_RF_ACCESSORS(enable, enable, uint8_t)
HAL_OUTPUT_RF_ACCESSORS(frequency, frequency_khz, uint32_t)
HAL_OUTPUT_RF_ACCESSORS(bandwidth, bandwidth_mhz, uint8_t)
HAL_OUTPUT_RF_ACCESSORS(symbolrate, symbolrate_kbaud, uint16_t)
HAL_OUTPUT_RF_ACCESSORS(constellation, constellation, hal_constellation_t)
HAL_OUTPUT_RF_ACCESSORS(guardinterval, guardinterval, hal_guardinterval_t)
HAL_OUTPUT_RF_ACCESSORS(coderate, coderate, hal_coderate_t)
HAL_OUTPUT_RF_ACCESSORS(fftmode, fftmode, hal_fftmode_t)
HAL_OUTPUT_RF_ACCESSORS(carriertype, carriertype, hal_carriertype_t)
HAL_OUTPUT_RF_ACCESSORS(interleave, interleave, hal_interleave_t)
HAL_OUTPUT_RF_ACCESSORS(syncframe, syncframe, hal_syncframe_t)

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
  DBG_MSG("<SYNC_TSOUT>");
  hal_ts_mirror_remove_stale(rf->tsout, &rf->tsin, 1, &hal_output_rf_mirror);
  hal_ts_mirror_services(rf->tsout, rf->tsin, &hal_output_rf_mirror);
  DBG_MSG("</SYNC_TSOUT>");
  DBG_MSG("<SYNC_TSIN>");
  /* A modulator refusing the identity does not stop the sync: the PSI still follows tsout. */
  hal_ts_mirror_identity(rf->tsin, rf->tsout);
  hal_ts_mirror_enabled(rf->tsin, rf->tsout);
  DBG_MSG("Update PSI");
  hal_ts_sync_psi(rf->tsin, rf->tsout);
  DBG_MSG("</SYNC_TSIN>");
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
