#ifndef HAL_TS_H
#define HAL_TS_H

#include <stddef.h>
#include <stdint.h>

#include "dbg.h"
#include "hal.h"

#define HAL_TS_TEXT_SIZE 64

/* MPEG-2 TS stream_type codes. */
typedef enum hal_stream_type_t : int {
  HAL_STREAM_TYPE_UNKNOWN = 0,
  HAL_MPEG2 = 4,
  HAL_AAC = 15,
  HAL_H264 = 27,
} hal_stream_type_t;

struct hal_ts_t;

typedef struct hal_ts_settings_t {
  uint16_t tsid;
  uint16_t onid;
  uint16_t nid;
  uint32_t private_data_specifier;
  char network_name[HAL_TS_TEXT_SIZE];
  uint8_t network_version;
} hal_ts_settings_t;

/* A transport stream: its services, newest first. */
typedef struct hal_ts_t {
  hal_object_t hal_object;
  lnklist_t service_list;
  uint32_t tag;
  void* owner; /* the multiplexer that has taken this TS as its master input */
  uint32_t settings_crc;
  hal_crc_memo_t crc_memo;
  struct {
    hal_err_t (*tsid)(void* user, uint16_t tsid);
    hal_err_t (*onid)(void* user, uint16_t onid);
    hal_err_t (*nid)(void* user, uint16_t nid);
    hal_err_t (*private_data_specifier)(void* user, uint32_t private_data_specifier);
    hal_err_t (*network_name)(void* user, const char* network_name);
    hal_err_t (*network_version)(void* user, uint8_t network_version);
  } set;
  struct {
    hal_err_t (*tsid)(void* user, uint16_t* tsid);
    hal_err_t (*onid)(void* user, uint16_t* onid);
    hal_err_t (*nid)(void* user, uint16_t* nid);
    hal_err_t (*private_data_specifier)(void* user, uint32_t* private_data_specifier);
    hal_err_t (*network_name)(void* user, char* network_name, size_t size);
    hal_err_t (*network_version)(void* user, uint8_t* network_version);
  } get;
  struct {
    /* rebuilds the PSI of ts_to from the services of ts_from */
    hal_err_t (*psi)(struct hal_ts_t* ts_to, struct hal_ts_t* ts_from);
  } sync;
  hal_ts_settings_t settings;
} hal_ts_t;

typedef struct hal_service_settings_t {
  uint16_t sid;
  uint8_t type;
  char service_name[HAL_TS_TEXT_SIZE];
  uint16_t lcn;
  uint16_t pmt_pid;
} hal_service_settings_t;

/* A service (programme) of a transport stream. */
typedef struct hal_service_t {
  hal_object_t hal_object;
  lnklist_t stream_list;
  uint32_t tag;
  uint8_t enabled; /* outside the settings, inside the checksum */
  uint32_t settings_crc;
  hal_crc_memo_t crc_memo;
  struct {
    hal_err_t (*sid)(void* user, uint16_t sid);
    hal_err_t (*type)(void* user, uint8_t type);
    hal_err_t (*service_name)(void* user, const char* service_name);
    hal_err_t (*lcn)(void* user, uint16_t lcn);
    hal_err_t (*pmt_pid)(void* user, uint16_t pmt_pid);
    hal_err_t (*enabled)(void* user, uint32_t tag, uint8_t enabled);
  } set;
  struct {
    hal_err_t (*sid)(void* user, uint16_t* sid);
    hal_err_t (*type)(void* user, uint8_t* type);
    hal_err_t (*service_name)(void* user, char* service_name, size_t size);
    hal_err_t (*lcn)(void* user, uint16_t* lcn);
    hal_err_t (*pmt_pid)(void* user, uint16_t* pmt_pid);
    hal_err_t (*enabled)(void* user, uint32_t tag, uint8_t* enabled);
  } get;
  hal_service_settings_t settings;
} hal_service_t;

typedef struct hal_stream_settings_t {
  uint16_t pid;
  hal_stream_type_t type;
  uint16_t bitrate_kbps;
} hal_stream_settings_t;

/* An elementary stream of a service. */
typedef struct hal_stream_t {
  hal_object_t hal_object;
  uint32_t tag;
  uint32_t settings_crc;
  hal_crc_memo_t crc_memo;
  struct {
    hal_err_t (*pid)(void* user, uint16_t pid);
    hal_err_t (*type)(void* user, hal_stream_type_t type);
    hal_err_t (*bitrate)(void* user, uint16_t bitrate_kbps);
  } set;
  struct {
    hal_err_t (*pid)(void* user, uint16_t* pid);
    hal_err_t (*type)(void* user, hal_stream_type_t* type);
    hal_err_t (*bitrate)(void* user, uint16_t* bitrate_kbps);
  } get;
  hal_stream_settings_t settings;
} hal_stream_t;

/* The next tag of each kind; a mirror takes its source's tag instead. */
extern uint32_t hal_ts_tag;
extern uint32_t hal_service_tag;
extern uint32_t hal_stream_tag;

hal_ts_t* new_hal_ts(void);
/* Deletes a TS through its delete operation; null is allowed. */
void hal_ts_delete(hal_ts_t* hal_ts);

/* A new object of kind `type` together with the TS it offers (its `tsout`, which it owns);
 * null when either cannot be created, the warning naming the constructor `func`. */
template <typename T>
T* hal_ts_new_producer(hal_object_type_t type, void (*delete_)(hal_object_t*), const char* func) {
  T* object = hal_new<T>(type, delete_, func);
  if (object == NULL) return NULL;
  object->tsout = new_hal_ts();
  if (object->tsout != NULL) return object;
  DBG_WRN_AT(func, "Could not create");
  delete_(&object->hal_object);
  return NULL;
}
hal_service_t* hal_ts_new_service(hal_ts_t* hal_ts);
hal_stream_t* hal_service_new_stream(hal_service_t* hal_service);
void hal_ts_delete_services(hal_ts_t* hal_ts);
void hal_service_delete_streams(hal_service_t* hal_service);

hal_err_t hal_ts_set_tsid(hal_ts_t* hal_ts, uint16_t tsid);
hal_err_t hal_ts_set_onid(hal_ts_t* hal_ts, uint16_t onid);
hal_err_t hal_ts_set_nid(hal_ts_t* hal_ts, uint16_t nid);
hal_err_t hal_ts_set_private_data_specifier(hal_ts_t* hal_ts, uint32_t private_data_specifier);
hal_err_t hal_ts_set_network_name(hal_ts_t* hal_ts, const char* network_name);
hal_err_t hal_ts_set_network_version(hal_ts_t* hal_ts, uint8_t network_version);
hal_err_t hal_ts_get_tsid(hal_ts_t* hal_ts, uint16_t* tsid);
hal_err_t hal_ts_get_onid(hal_ts_t* hal_ts, uint16_t* onid);
hal_err_t hal_ts_get_nid(hal_ts_t* hal_ts, uint16_t* nid);
hal_err_t hal_ts_get_private_data_specifier(hal_ts_t* hal_ts, uint32_t* private_data_specifier);
/* Copies out HAL_TS_TEXT_SIZE characters whatever `size` says: callers supply at least that. */
hal_err_t hal_ts_get_network_name(hal_ts_t* hal_ts, char* network_name, size_t size);
hal_err_t hal_ts_get_network_version(hal_ts_t* hal_ts, uint8_t* network_version);
hal_err_t hal_ts_set_all(hal_ts_t* hal_ts);
hal_err_t hal_ts_get_all(hal_ts_t* hal_ts);

hal_err_t hal_service_set_sid(hal_service_t* hal_service, uint16_t sid);
/* Keeps the low 8 bits, without a range check. */
hal_err_t hal_service_set_type(hal_service_t* hal_service, uint16_t type);
hal_err_t hal_service_set_name(hal_service_t* hal_service, const char* service_name);
hal_err_t hal_service_set_lcn(hal_service_t* hal_service, uint16_t lcn);
hal_err_t hal_service_set_pmt_pid(hal_service_t* hal_service, uint16_t pmt_pid);
hal_err_t hal_service_set_enabled(hal_service_t* hal_service, uint8_t enabled);
hal_err_t hal_service_get_sid(hal_service_t* hal_service, uint16_t* sid);
hal_err_t hal_service_get_type(hal_service_t* hal_service, uint8_t* type);
hal_err_t hal_service_get_name(hal_service_t* hal_service, char* service_name, size_t size);
hal_err_t hal_service_get_lcn(hal_service_t* hal_service, uint16_t* lcn);
hal_err_t hal_service_get_pmt_pid(hal_service_t* hal_service, uint16_t* pmt_pid);
hal_err_t hal_service_get_enabled(hal_service_t* hal_service, uint8_t* enabled);
hal_err_t hal_service_set_all(hal_service_t* hal_service);
hal_err_t hal_service_get_all(hal_service_t* hal_service);

hal_err_t hal_stream_set_pid(hal_stream_t* hal_stream, uint16_t pid);
hal_err_t hal_stream_set_type(hal_stream_t* hal_stream, hal_stream_type_t type);
hal_err_t hal_stream_set_bitrate(hal_stream_t* hal_stream, uint16_t bitrate_kbps);
hal_err_t hal_stream_get_pid(hal_stream_t* hal_stream, uint16_t* pid);
hal_err_t hal_stream_get_type(hal_stream_t* hal_stream, hal_stream_type_t* type);
hal_err_t hal_stream_get_bitrate(hal_stream_t* hal_stream, uint16_t* bitrate_kbps);
hal_err_t hal_stream_set_all(hal_stream_t* hal_stream);
hal_err_t hal_stream_get_all(hal_stream_t* hal_stream);

hal_service_t* hal_ts_find_service(hal_ts_t* hal_ts, uint16_t sid);
hal_service_t* hal_ts_find_service_by_tag(hal_ts_t* hal_ts, uint32_t tag);
hal_stream_t* hal_service_find_stream(hal_service_t* hal_service, uint16_t pid);
hal_stream_t* hal_service_find_stream_by_tag(hal_service_t* hal_service, uint32_t tag);

hal_err_t hal_ts_sync_psi(hal_ts_t* ts_to, hal_ts_t* ts_from);

/* Change tests over a stream, a service with its streams, a TS with everything in it. Only a
 * test with update_crc set takes the change in. */
uint8_t hal_stream_changed(hal_stream_t* hal_stream, uint8_t update_crc);
uint8_t hal_service_changed(hal_service_t* hal_service, uint8_t update_crc);
uint8_t hal_ts_changed(hal_ts_t* hal_ts, uint8_t update_crc);

/* Mirroring the services of the TSs an object reads into the TS it offers, matched by tag: the
 * sync steps of the outputs and of the multiplexer. Their warnings name the sync step and use
 * its own one-letter texts. */
typedef struct hal_ts_mirror_t {
  const char* func;           /* the sync step, as named in warnings */
  const char* stale_service;  /* warning text of a removed service */
  const char* stale_stream;   /* warning text of a removed stream */
  const char* after_identity; /* a message line the IP output logs after the identity; or null */
} hal_ts_mirror_t;

/* Removes the services of tsout that none of the sources (null entries skipped) carries. */
void hal_ts_mirror_remove_stale(hal_ts_t* tsout, hal_ts_t* const* sources, size_t count,
                                const hal_ts_mirror_t* mirror);
/* Updates or adds the mirror of each service of tsin, in tsin's order; `enabled` is left to
 * the operator. */
void hal_ts_mirror_services(hal_ts_t* tsout, hal_ts_t* tsin, const hal_ts_mirror_t* mirror);
/* Copies the TS identity of `from` into `to` and pushes it through `to`'s setters; the result
 * is hal_ts_set_all's. */
hal_err_t hal_ts_mirror_identity(hal_ts_t* to, hal_ts_t* from);
/* Copies the `enabled` flag of each service of `from` to the service of `to` with its tag.
 * Returns 1 when a copied flag is set. */
uint8_t hal_ts_mirror_enabled(hal_ts_t* to, hal_ts_t* from);
/* The sync of an output: the services of tsin offered in tsout, then the identity and the
 * switches set on tsout handed back to tsin and its PSI. What tsin's producer answers does not
 * stop it. */
void hal_ts_mirror_output(hal_ts_t* tsin, hal_ts_t* tsout, const hal_ts_mirror_t* mirror);

#endif
