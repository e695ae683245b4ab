#ifndef HAL_OUTPUT_RF_H
#define HAL_OUTPUT_RF_H

#include <stdint.h>

#include "hal.h"
#include "hal_ts.h"

/* The modulation standard; single bits. */
typedef enum hal_output_type_t : int {
  HAL_DVB_T = 1,
  HAL_DVB_C = 2,
  HAL_ATSC_T = 4,
  HAL_ATSC_C = 8,
  HAL_DTMB = 16,
  HAL_ISDBT = 32,
} hal_output_type_t;

/* Not contiguous: the values are stored in the settings and so in their checksum. */
typedef enum hal_constellation_t : int {
  HAL_QPSK = 2,
  HAL_8VSB = 3,
  HAL_16QAM = 4,
  HAL_32QAM = 5,
  HAL_64QAM = 6,
  HAL_128QAM = 7,
  HAL_256QAM = 8,
  HAL_4QAM = 18,
  HAL_4NRQAM = 34,
} hal_constellation_t;

typedef enum hal_guardinterval_t : int {
  HAL_1_32 = 0,
  HAL_1_16 = 1,
  HAL_1_8 = 2,
  HAL_1_4 = 3,
} hal_guardinterval_t;

/* The last three are the DTMB rates 0.4, 0.6 and 0.8. */
typedef enum hal_coderate_t : int {
  HAL_1_2 = 0,
  HAL_2_3 = 1,
  HAL_3_4 = 2,
  HAL_5_6 = 3,
  HAL_7_8 = 4,
  HAL_0_4 = 5,
  HAL_0_6 = 6,
  HAL_0_8 = 7,
} hal_coderate_t;

typedef enum hal_fftmode_t : int {
  HAL_2K = 0,
  HAL_8K = 1,
  HAL_4K = 2,
} hal_fftmode_t;

typedef enum hal_carriertype_t : int {
  HAL_MULTI_CARRIER = 0,
  HAL_SINGLE_CARRIER = 1,
} hal_carriertype_t;

/* DTMB time interleaving depth. */
typedef enum hal_interleave_t : int {
  HAL_INTLV_NONE = 0,
  HAL_INTLV_240 = 1,
  HAL_INTLV_720 = 2,
} hal_interleave_t;

/* DTMB frame header length. */
typedef enum hal_syncframe_t : int {
  HAL_SYNC_420 = 0,
  HAL_SYNC_945 = 1,
  HAL_SYNC_595 = 2,
} hal_syncframe_t;

typedef struct hal_output_rf_status_t {
  uint16_t max_bitrate_kbps; /* the most the current modulation carries */
  uint8_t overflow;          /* non-zero when the incoming TS exceeds it */
} hal_output_rf_status_t;

typedef struct hal_output_rf_settings_t {
  hal_output_type_t type;
  int8_t level_dbm;
  uint8_t enable;
  uint32_t frequency_khz;
  uint8_t bandwidth_mhz;
  uint16_t symbolrate_kbaud;
  hal_constellation_t constellation;
  hal_guardinterval_t guardinterval;
  hal_coderate_t coderate;
  hal_fftmode_t fftmode;
  hal_carriertype_t carriertype;
  hal_interleave_t interleave;
  hal_syncframe_t syncframe;
} hal_output_rf_settings_t;

/* The RF output. tsin is what reaches the modulator; tsout is the operator's view of the output.
 * The sync carries services from tsin to tsout, and the network identity and each service's
 * on/off flag back from tsout to tsin and its PSI. Every operation may be null: the field then
 * lives in memory only. */
typedef struct hal_output_rf_t {
  hal_object_t hal_object;
  hal_ts_t* tsin;  /* not owned */
  hal_ts_t* tsout; /* owned */
  uint32_t settings_crc;
  uint8_t sync_required;
  uint8_t apply_required;
  hal_err_t (*apply)(void* user); /* pushes every modulation setting at once */
  struct {
    hal_err_t (*type)(void* user, hal_output_type_t type);
    hal_err_t (*level)(void* user, int8_t level_dbm);
    hal_err_t (*enable)(void* user, uint8_t enable);
    hal_err_t (*frequency)(void* user, uint32_t frequency_khz);
    hal_err_t (*bandwidth)(void* user, uint8_t bandwidth_mhz);
    hal_err_t (*symbolrate)(void* user, uint16_t symbolrate_kbaud);
    hal_err_t (*constellation)(void* user, hal_constellation_t constellation);
    hal_err_t (*guardinterval)(void* user, hal_guardinterval_t guardinterval);
    hal_err_t (*coderate)(void* user, hal_coderate_t coderate);
    hal_err_t (*fftmode)(void* user, hal_fftmode_t fftmode);
    hal_err_t (*carriertype)(void* user, hal_carriertype_t carriertype);
    hal_err_t (*interleave)(void* user, hal_interleave_t interleave);
    hal_err_t (*syncframe)(void* user, hal_syncframe_t syncframe);
    hal_err_t (*calibration)(void* user, int8_t i, int8_t q, uint8_t enable);
  } set;
  struct {
    hal_err_t (*type)(void* user, hal_output_type_t* type);
    hal_err_t (*level)(void* user, int8_t* level_dbm);
    hal_err_t (*enable)(void* user, uint8_t* enable);
    hal_err_t (*frequency)(void* user, uint32_t* frequency_khz);
    hal_err_t (*bandwidth)(void* user, uint8_t* bandwidth_mhz);
    hal_err_t (*symbolrate)(void* user, uint16_t* symbolrate_kbaud);
    hal_err_t (*constellation)(void* user, hal_constellation_t* constellation);
    hal_err_t (*guardinterval)(void* user, hal_guardinterval_t* guardinterval);
    hal_err_t (*coderate)(void* user, hal_coderate_t* coderate);
    hal_err_t (*fftmode)(void* user, hal_fftmode_t* fftmode);
    hal_err_t (*carriertype)(void* user, hal_carriertype_t* carriertype);
    hal_err_t (*interleave)(void* user, hal_interleave_t* interleave);
    hal_err_t (*syncframe)(void* user, hal_syncframe_t* syncframe);
    hal_err_t (*status)(void* user, hal_output_rf_status_t* status);
    hal_err_t (*calibration)(void* user, int8_t* i, int8_t* q);
  } get;
  hal_output_rf_settings_t settings;
  hal_output_rf_status_t status;
} hal_output_rf_t;

/* A zero-filled output with no operations, reading tsin and offering a new tsout. */
hal_output_rf_t* new_hal_output_rf(hal_ts_t* tsin);
/* Deletes tsout with the output, never tsin. */
void delete_hal_output_rf(hal_object_t* object);

hal_err_t hal_output_rf_set_type(hal_output_rf_t* rf, hal_output_type_t type);
hal_err_t hal_output_rf_set_level(hal_output_rf_t* rf, int8_t level_dbm);
hal_err_t hal_output_rf_set_enable(hal_output_rf_t* rf, uint8_t enable);
hal_err_t hal_output_rf_set_frequency(hal_output_rf_t* rf, uint32_t frequency_khz);
hal_err_t hal_output_rf_set_bandwidth(hal_output_rf_t* rf, uint8_t bandwidth_mhz);
hal_err_t hal_output_rf_set_symbolrate(hal_output_rf_t* rf, uint16_t symbolrate_kbaud);
hal_err_t hal_output_rf_set_constellation(hal_output_rf_t* rf, hal_constellation_t constellation);
hal_err_t hal_output_rf_set_guardinterval(hal_output_rf_t* rf, hal_guardinterval_t guardinterval);
hal_err_t hal_output_rf_set_coderate(hal_output_rf_t* rf, hal_coderate_t coderate);
hal_err_t hal_output_rf_set_fftmode(hal_output_rf_t* rf, hal_fftmode_t fftmode);
hal_err_t hal_output_rf_set_carriertype(hal_output_rf_t* rf, hal_carriertype_t carriertype);
hal_err_t hal_output_rf_set_interleave(hal_output_rf_t* rf, hal_interleave_t interleave);
hal_err_t hal_output_rf_set_syncframe(hal_output_rf_t* rf, hal_syncframe_t syncframe);

/* A getter lets the modulator overwrite the stored value before copying it out. */
hal_err_t hal_output_rf_get_type(hal_output_rf_t* rf, hal_output_type_t* type);
hal_err_t hal_output_rf_get_level(hal_output_rf_t* rf, int8_t* level_dbm);
hal_err_t hal_output_rf_get_enable(hal_output_rf_t* rf, uint8_t* enable);
hal_err_t hal_output_rf_get_frequency(hal_output_rf_t* rf, uint32_t* frequency_khz);
hal_err_t hal_output_rf_get_bandwidth(hal_output_rf_t* rf, uint8_t* bandwidth_mhz);
hal_err_t hal_output_rf_get_symbolrate(hal_output_rf_t* rf, uint16_t* symbolrate_kbaud);
hal_err_t hal_output_rf_get_constellation(hal_output_rf_t* rf, hal_constellation_t* constellation);
hal_err_t hal_output_rf_get_guardinterval(hal_output_rf_t* rf, hal_guardinterval_t* guardinterval);
hal_err_t hal_output_rf_get_coderate(hal_output_rf_t* rf, hal_coderate_t* coderate);
hal_err_t hal_output_rf_get_fftmode(hal_output_rf_t* rf, hal_fftmode_t* fftmode);
hal_err_t hal_output_rf_get_carriertype(hal_output_rf_t* rf, hal_carriertype_t* carriertype);
hal_err_t hal_output_rf_get_interleave(hal_output_rf_t* rf, hal_interleave_t* interleave);
hal_err_t hal_output_rf_get_syncframe(hal_output_rf_t* rf, hal_syncframe_t* syncframe);

/* The level is written after the frequency it depends on, but read before it. */
hal_err_t hal_output_rf_set_all(hal_output_rf_t* rf);
hal_err_t hal_output_rf_get_all(hal_output_rf_t* rf);

/* Refreshes `status`; without a status operation it stays as it was. */
hal_err_t hal_output_rf_get_status(hal_output_rf_t* rf);
/* The configured bitrate: the stream bitrates of the enabled services of tsout. No hardware. */
hal_err_t hal_output_rf_get_bitrate(hal_output_rf_t* rf, uint32_t* bitrate_kbps);
/* Straight to the modulator; nothing is kept in the object. */
hal_err_t hal_output_rf_set_cal(hal_output_rf_t* rf, int8_t i, int8_t q, uint8_t enable);
hal_err_t hal_output_rf_get_cal(hal_output_rf_t* rf, int8_t* i, int8_t* q);

/* Takes in changes of tsout and of the settings, and looks at tsin without taking it in; returns
 * sync_required OR apply_required. */
uint8_t hal_output_rf_changed(hal_output_rf_t* rf);
hal_err_t hal_output_rf_sync(hal_output_rf_t* rf);
hal_err_t hal_output_rf_apply(hal_output_rf_t* rf);

#endif
