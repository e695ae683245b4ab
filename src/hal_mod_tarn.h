#ifndef HAL_MOD_TARN_H
#define HAL_MOD_TARN_H

#include <stdint.h>

#include "hal.h"
#include "hal_i2c.h"
#include "hal_input_hdmi.h"
#include "hal_output_rf.h"
#include "hal_ts.h"
#include "mod_tarn.h"

/* One encoder/modulator module as a HAL object. The HDMI input, the RF output and the transport
 * stream made on it have the module object as their user, and each of their operations leaves its
 * translated result in the module object's err. */
typedef struct hal_mod_tarn_t {
  hal_object_t hal_object; /* user points at mod_tarn */
  mod_tarn_t mod_tarn;
} hal_mod_tarn_t;

/* Initialising the driver always succeeds: an absent module shows at its first command. Not pushed
 * into the registry. */
hal_mod_tarn_t* new_hal_mod_tarn(const char* name, uint8_t i2c_addr, hal_i2c_t* hal_i2c);
void delete_hal_mod_tarn(hal_object_t* object);

/* The module's HDMI input, whose tsout (one service: an audio, then a video stream) describes the
 * module's own programme. Settings, TS, service and streams start as the module's current values;
 * a failing read fails the creation. Not pushed into the registry. */
hal_input_hdmi_t* new_hal_mod_tarn_input_hdmi(hal_mod_tarn_t* hal_mod_tarn);
/* Deletes tsout with the input, never the module. */
void delete_hal_mod_tarn_input_hdmi(hal_object_t* object);

/* The module's modulator, reading tsin (not owned) and offering a new in-memory tsout (owned).
 * The settings start as the module's current values. Not pushed into the registry. */
hal_output_rf_t* new_hal_mod_tarn_output_rf(hal_mod_tarn_t* hal_mod_tarn, hal_ts_t* tsin);
/* Deletes tsout with the output, never tsin nor the module. */
void delete_hal_mod_tarn_output_rf(hal_object_t* object);

/* The driver's text, for the module object and for every object made on it. */
const char* hal_mod_tarn_strerror(hal_object_t* object);

/* A command the module's firmware does not know counts as done: older modules are driven with the
 * full command set. */
hal_err_t hal_translate_mod_tarn_err(mod_tarn_err_t err);

/* The modulation enumerations have the module's values: they pass by value both ways. */
#define HAL_MOD_TARN_BY_VALUE(name, hal_t, mod_t)       \
  constexpr mod_t hal_to_mod_tarn_##name(hal_t value) { \
    return static_cast<mod_t>(static_cast<int>(value)); \
  }                                                     \
  constexpr hal_t mod_tarn_to_hal_##name(mod_t value) { return static_cast<hal_t>(static_cast<int>(value)); }

HAL_MOD_TARN_BY_VALUE(output_type, hal_output_type_t, mod_tarn_output_type_t)
HAL_MOD_TARN_BY_VALUE(constellation, hal_constellation_t, mod_tarn_constellation_t)
HAL_MOD_TARN_BY_VALUE(guardinterval, hal_guardinterval_t, mod_tarn_guardinterval_t)
HAL_MOD_TARN_BY_VALUE(coderate, hal_coderate_t, mod_tarn_coderate_t)
HAL_MOD_TARN_BY_VALUE(fftmode, hal_fftmode_t, mod_tarn_fftmode_t)
HAL_MOD_TARN_BY_VALUE(carriertype, hal_carriertype_t, mod_tarn_carriertype_t)
HAL_MOD_TARN_BY_VALUE(interleave, hal_interleave_t, mod_tarn_interleave_t)
HAL_MOD_TARN_BY_VALUE(syncframe, hal_syncframe_t, mod_tarn_syncframe_t)

/* Stream types do not share values: the HAL has the MPEG-2 systems codes, the module its own. */
typedef struct hal_mod_tarn_stream_type_row_t {
  hal_stream_type_t hal;
  mod_tarn_stream_type_t mod_tarn;
} hal_mod_tarn_stream_type_row_t;

inline constexpr hal_mod_tarn_stream_type_row_t hal_mod_tarn_stream_types[] = {
    {HAL_AAC, MOD_TARN_AAC},
    {HAL_H264, MOD_TARN_H264},
    {HAL_MPEG2, MOD_TARN_MPEG2},
};

/* Whatever the module cannot code as AAC or H.264 goes as MPEG-2 audio. */
constexpr mod_tarn_stream_type_t hal_to_mod_tarn_stream_type(hal_stream_type_t type) {
  for (const hal_mod_tarn_stream_type_row_t& row : hal_mod_tarn_stream_types) {
    if (row.hal == type) return row.mod_tarn;
  }
  return MOD_TARN_MPEG2;
}

constexpr hal_stream_type_t mod_tarn_to_hal_stream_type(mod_tarn_stream_type_t type) {
  for (const hal_mod_tarn_stream_type_row_t& row : hal_mod_tarn_stream_types) {
    if (row.mod_tarn == type) return row.hal;
  }
  return HAL_STREAM_TYPE_UNKNOWN;
}

/* The operations with more to them than one driver call; `hal_mod_tarn` is the module object. */
hal_err_t hal_mod_tarn_apply(void* hal_mod_tarn);
/* The module corrects the level by the frequency it holds, which is read first. */
hal_err_t hal_mod_tarn_set_level(void* hal_mod_tarn, int8_t level_dbm);
hal_err_t hal_mod_tarn_get_level(void* hal_mod_tarn, int8_t* level_dbm);

/* Tells the module behind ts_to which services of ts_from it announces besides its own: the
 * enabled ones with audio or video that ts_to does not carry, in ts_from's order, one per extra
 * service slot; the slots left over are switched off. Takes effect with the next apply. */
hal_err_t hal_mod_tarn_sync_psi(hal_ts_t* ts_to, hal_ts_t* ts_from);

#endif
