#include "hal_mod_tarn.h"

#include "dbg.h"

/* Passing the modulation enumerations by value relies on these pairs being equal. */
static constexpr int hal_mod_tarn_equal_values[][2] = {
    {HAL_DVB_T, MOD_TARN_DVB_T},
    {HAL_DVB_C, MOD_TARN_DVB_C},
    {HAL_ATSC_T, MOD_TARN_ATSC_T},
    {HAL_ATSC_C, MOD_TARN_ATSC_C},
    {HAL_DTMB, MOD_TARN_DTMB},
    {HAL_ISDBT, MOD_TARN_ISDBT},
    {HAL_QPSK, MOD_TARN_QPSK},
    {HAL_8VSB, MOD_TARN_8VSB},
    {HAL_16QAM, MOD_TARN_16QAM},
    {HAL_32QAM, MOD_TARN_32QAM},
    {HAL_64QAM, MOD_TARN_64QAM},
    {HAL_128QAM, MOD_TARN_128QAM},
    {HAL_256QAM, MOD_TARN_256QAM},
    {HAL_4QAM, MOD_TARN_4QAM},
    {HAL_4NRQAM, MOD_TARN_4NRQAM},
    {HAL_1_32, MOD_TARN_1_32},
    {HAL_1_16, MOD_TARN_1_16},
    {HAL_1_8, MOD_TARN_1_8},
    {HAL_1_4, MOD_TARN_1_4},
    {HAL_1_2, MOD_TARN_1_2},
    {HAL_2_3, MOD_TARN_2_3},
    {HAL_3_4, MOD_TARN_3_4},
    {HAL_5_6, MOD_TARN_5_6},
    {HAL_7_8, MOD_TARN_7_8},
    {HAL_0_4, MOD_TARN_0_4},
    {HAL_0_6, MOD_TARN_0_6},
    {HAL_0_8, MOD_TARN_0_8},
    {HAL_2K, MOD_TARN_2K},
    {HAL_8K, MOD_TARN_8K},
    {HAL_4K, MOD_TARN_4K},
    {HAL_MULTI_CARRIER, MOD_TARN_MULTI_CARRIER},
    {HAL_SINGLE_CARRIER, MOD_TARN_SINGLE_CARRIER},
    {HAL_INTLV_NONE, MOD_TARN_INTLV_NONE},
    {HAL_INTLV_240, MOD_TARN_INTLV_240},
    {HAL_INTLV_720, MOD_TARN_INTLV_720},
    {HAL_SYNC_420, MOD_TARN_SYNC_420},
    {HAL_SYNC_945, MOD_TARN_SYNC_945},
    {HAL_SYNC_595, MOD_TARN_SYNC_595},
};

static constexpr bool hal_mod_tarn_values_equal() {
  // cppcheck-suppress constVariable ; pair already is a reference to a const row
  for (const auto& pair : hal_mod_tarn_equal_values) {
    if (pair[0] != pair[1]) return false;
  }
  return true;
}
static_assert(hal_mod_tarn_values_equal(), "the modulation enumerations must keep the module's values");

/* ---- results ---- */

hal_err_t hal_translate_mod_tarn_err(mod_tarn_err_t err) {
  return err == MOD_TARN_OK || err == MOD_TARN_CMD_UNKNOWN ? HAL_OK : HAL_MOD_TARN_ERR;
}

/* The objects made on a module have the module object as their user. */
const char* hal_mod_tarn_strerror(hal_object_t* object) {
  hal_mod_tarn_t* module = object->type == HAL_MOD_TARN ? reinterpret_cast<hal_mod_tarn_t*>(object)
                                                        : static_cast<hal_mod_tarn_t*>(object->user);
  return mod_tarn_strerror(&module->mod_tarn);
}

static hal_mod_tarn_t* hal_mod_tarn_of(void* user) { return static_cast<hal_mod_tarn_t*>(user); }

static hal_err_t hal_mod_tarn_result(hal_mod_tarn_t* module, hal_err_t err) {
  module->hal_object.err = err;
  return err;
}

/* The driver operation `op` on the module behind `user`, its result translated and kept. */
template <typename... Params, typename... Args>
static hal_err_t hal_mod_tarn_call(void* user, mod_tarn_err_t (*op)(mod_tarn_t*, Params...), Args... args) {
  hal_mod_tarn_t* module = hal_mod_tarn_of(user);
  return hal_mod_tarn_result(module, hal_translate_mod_tarn_err(op(&module->mod_tarn, args...)));
}

/* A command the firmware does not know reads as success but brings no value: outputs are written
 * only when the module really answered. */
static bool hal_mod_tarn_answered(void* user) { return hal_mod_tarn_of(user)->mod_tarn.err == MOD_TARN_OK; }

/* ---- the operation families ---- */

// NOLINTBEGIN(bugprone-macro-parentheses): T and hal_t name types, which take no parentheses
/* hal_mod_tarn_set_<name> and hal_mod_tarn_get_<name>, handing the value to the driver's <op>
 * as it is. */
#define HAL_MOD_TARN_VALUE(name, op, T)                            \
  static hal_err_t hal_mod_tarn_set_##name(void* user, T value) {  \
    return hal_mod_tarn_call(user, mod_tarn_set_##op, value);      \
  }                                                                \
  static hal_err_t hal_mod_tarn_get_##name(void* user, T* value) { \
    return hal_mod_tarn_call(user, mod_tarn_get_##op, value);      \
  }

/* A value read through a translation: the output is written only when the module answered. */
template <typename H, typename M>
static hal_err_t hal_mod_tarn_get_translated(void* user, mod_tarn_err_t (*op)(mod_tarn_t*, M*),
                                             H (*to_hal)(M), H* value) {
  M read{};
  hal_err_t err = hal_mod_tarn_call(user, op, &read);
  if (hal_mod_tarn_answered(user)) *value = to_hal(read);
  return err;
}

/* The same for an enumeration that the HAL and the module code differently. */
#define HAL_MOD_TARN_TRANSLATED(name, op, hal_t, to_mod, to_hal)                \
  static hal_err_t hal_mod_tarn_set_##name(void* user, hal_t value) {           \
    return hal_mod_tarn_call(user, mod_tarn_set_##op, to_mod(value));           \
  }                                                                             \
  static hal_err_t hal_mod_tarn_get_##name(void* user, hal_t* value) {          \
    return hal_mod_tarn_get_translated(user, mod_tarn_get_##op, to_hal, value); \
  }
// NOLINTEND(bugprone-macro-parentheses)

#define HAL_MOD_TARN_ENUM(name, hal_t) \
  HAL_MOD_TARN_TRANSLATED(name, name, hal_t, hal_to_mod_tarn_##name, mod_tarn_to_hal_##name)

#define HAL_MOD_TARN_TEXT(name)                                                   \
  static hal_err_t hal_mod_tarn_set_##name(void* user, const char* text) {        \
    return hal_mod_tarn_call(user, mod_tarn_set_##name, text);                    \
  }                                                                               \
  static hal_err_t hal_mod_tarn_get_##name(void* user, char* text, size_t size) { \
    return hal_mod_tarn_call(user, mod_tarn_get_##name, text, size);              \
  }

/* RF output */
HAL_MOD_TARN_ENUM(output_type, hal_output_type_t)
HAL_MOD_TARN_VALUE(enable, rf_out_enable, uint8_t)
HAL_MOD_TARN_VALUE(frequency, frequency, uint32_t)
HAL_MOD_TARN_VALUE(bandwidth, bandwidth, uint8_t)
HAL_MOD_TARN_VALUE(symbolrate, symbolrate, uint16_t)
HAL_MOD_TARN_ENUM(constellation, hal_constellation_t)
HAL_MOD_TARN_ENUM(guardinterval, hal_guardinterval_t)
HAL_MOD_TARN_ENUM(coderate, hal_coderate_t)
HAL_MOD_TARN_ENUM(fftmode, hal_fftmode_t)
HAL_MOD_TARN_ENUM(carriertype, hal_carriertype_t)
HAL_MOD_TARN_ENUM(interleave, hal_interleave_t)
HAL_MOD_TARN_ENUM(syncframe, hal_syncframe_t)

/* HDMI input; the bitrates are also those of the service's video and audio streams. */
HAL_MOD_TARN_VALUE(video_bitrate, video_bitrate, uint16_t)
HAL_MOD_TARN_VALUE(video_gopsize, video_gopsize, uint8_t)
HAL_MOD_TARN_VALUE(audio_bitrate, audio_bitrate, uint16_t)

/* TS */
HAL_MOD_TARN_VALUE(tsid, tsid, uint16_t)
HAL_MOD_TARN_VALUE(onid, onid, uint16_t)
HAL_MOD_TARN_VALUE(nid, nid, uint16_t)
HAL_MOD_TARN_VALUE(private_data_specifier, private_data_specifier, uint32_t)
HAL_MOD_TARN_TEXT(network_name)
HAL_MOD_TARN_VALUE(network_version, network_version, uint8_t)

/* Service */
HAL_MOD_TARN_VALUE(sid, sid, uint16_t)
HAL_MOD_TARN_TEXT(service_name)
HAL_MOD_TARN_VALUE(lcn, lcn, uint16_t)
HAL_MOD_TARN_VALUE(pmt_pid, pmt_pid, uint16_t)

/* Streams */
HAL_MOD_TARN_VALUE(audio_pid, audio_pid, uint16_t)
HAL_MOD_TARN_TRANSLATED(audio_stream_type, audio_stream_type, hal_stream_type_t, hal_to_mod_tarn_stream_type,
                        mod_tarn_to_hal_stream_type)
HAL_MOD_TARN_VALUE(video_pid, video_pid, uint16_t)

/* A value the module has no command for: any is accepted, and the module's own is what is read. */
template <typename T>
static hal_err_t hal_mod_tarn_set_fixed(void* user, T) {
  return hal_mod_tarn_result(hal_mod_tarn_of(user), HAL_OK);
}

template <typename T, T fixed>
static hal_err_t hal_mod_tarn_get_fixed(void* user, T* value) {
  *value = fixed;
  return hal_mod_tarn_result(hal_mod_tarn_of(user), HAL_OK);
}

/* Every service a module makes is a digital television service, coded with H.264, the module's
 * only video coding. */
static constexpr uint8_t HAL_MOD_TARN_SERVICE_TYPE = 1;
static constexpr auto hal_mod_tarn_set_service_type = hal_mod_tarn_set_fixed<uint8_t>;
static constexpr auto hal_mod_tarn_get_service_type =
    hal_mod_tarn_get_fixed<uint8_t, HAL_MOD_TARN_SERVICE_TYPE>;
static constexpr auto hal_mod_tarn_set_video_stream_type = hal_mod_tarn_set_fixed<hal_stream_type_t>;
static constexpr auto hal_mod_tarn_get_video_stream_type =
    hal_mod_tarn_get_fixed<hal_stream_type_t, HAL_H264>;

/* ---- operations of their own ---- */

hal_err_t hal_mod_tarn_apply(void* hal_mod_tarn) { return hal_mod_tarn_call(hal_mod_tarn, mod_tarn_apply); }

/* The frequency the module holds, for the level correction. A module that will not tell it leaves
 * 0 kHz: the adaptor knows only the module object, not the RF output with its stored frequency, and
 * 0 kHz selects the smallest correction, so that a level sent without knowing the band never comes
 * out stronger than the one asked for. */
static uint32_t hal_mod_tarn_frequency(hal_mod_tarn_t* module) {
  uint32_t freq_khz = 0;
  mod_tarn_get_frequency(&module->mod_tarn, &freq_khz);
  return freq_khz;
}

hal_err_t hal_mod_tarn_set_level(void* hal_mod_tarn, int8_t level_dbm) {
  const uint32_t freq_khz = hal_mod_tarn_frequency(hal_mod_tarn_of(hal_mod_tarn));
  return hal_mod_tarn_call(hal_mod_tarn, mod_tarn_set_level, level_dbm, freq_khz);
}

hal_err_t hal_mod_tarn_get_level(void* hal_mod_tarn, int8_t* level_dbm) {
  const uint32_t freq_khz = hal_mod_tarn_frequency(hal_mod_tarn_of(hal_mod_tarn));
  return hal_mod_tarn_call(hal_mod_tarn, mod_tarn_get_level, level_dbm, freq_khz);
}

static hal_err_t hal_mod_tarn_set_cal(void* user, int8_t i, int8_t q, uint8_t enable) {
  return hal_mod_tarn_call(user, mod_tarn_set_cal, i, q, enable);
}

static hal_err_t hal_mod_tarn_get_cal(void* user, int8_t* i, int8_t* q) {
  return hal_mod_tarn_call(user, mod_tarn_get_cal, i, q);
}

static hal_err_t hal_mod_tarn_set_hw_debug_code(void* user, uint8_t code, uint8_t enable) {
  return hal_mod_tarn_call(user, mod_tarn_set_hw_debug_code, code, enable);
}

static hal_err_t hal_mod_tarn_get_hw_debug_code(void* user, uint8_t code, uint8_t* enable) {
  return hal_mod_tarn_call(user, mod_tarn_get_hw_debug_code, code, enable);
}

/* The module's status record, read fresh: null when the module did not answer. */
static const mod_tarn_status_t* hal_mod_tarn_status(void* user, hal_err_t* err) {
  *err = hal_mod_tarn_call(user, mod_tarn_get_status);
  return hal_mod_tarn_answered(user) ? &hal_mod_tarn_of(user)->mod_tarn.status : NULL;
}

static hal_err_t hal_mod_tarn_get_output_rf_status(void* user, hal_output_rf_status_t* status) {
  hal_err_t err;
  const mod_tarn_status_t* read = hal_mod_tarn_status(user, &err);
  if (read != NULL) {
    status->max_bitrate_kbps = read->max_output_bitrate_kbps;
    status->overflow = read->overflow;
  }
  return err;
}

static hal_err_t hal_mod_tarn_get_input_hdmi_status(void* user, hal_input_hdmi_status_t* status) {
  hal_err_t err;
  const mod_tarn_status_t* read = hal_mod_tarn_status(user, &err);
  if (read != NULL) {
    status->lock = read->lock;
    status->video_height = read->video_height;
    status->video_scan_mode = read->video_scan_mode;
    status->video_frame_rate = read->video_frame_rate;
  }
  return err;
}

/* ---- PSI ---- */

/* The identity of a foreign service in an extra service slot, up to the first command that fails. */
static hal_err_t hal_mod_tarn_psi_identity(hal_mod_tarn_t* module, uint8_t slot,
                                           const hal_service_t* service) {
  const hal_service_settings_t& settings = service->settings;
  hal_err_t err = hal_mod_tarn_call(module, mod_tarn_set_extra_service_info_sid, slot, settings.sid);
  if (err == HAL_OK) err = hal_mod_tarn_call(module, mod_tarn_set_extra_service_info_lcn, slot, settings.lcn);
  if (err == HAL_OK) {
    err =
        hal_mod_tarn_call(module, mod_tarn_set_extra_service_info_service_name, slot, settings.service_name);
  }
  if (err == HAL_OK) {
    err = hal_mod_tarn_call(module, mod_tarn_set_extra_service_info_pmt, slot, settings.pmt_pid);
  }
  return err;
}

/* One stream of a foreign service: video and audio go into the slot, anything else is passed over.
 * `carried` is set when the stream went in. */
static hal_err_t hal_mod_tarn_psi_stream(hal_mod_tarn_t* module, uint8_t slot, const hal_stream_t* stream,
                                         uint8_t* carried) {
  const hal_stream_type_t type = stream->settings.type;
  if (type == HAL_H264) {
    *carried = 1;
    return hal_mod_tarn_call(module, mod_tarn_set_extra_service_info_video_pid, slot, stream->settings.pid);
  }
  if (type != HAL_AAC && type != HAL_MPEG2) return HAL_OK;
  *carried = 1;
  hal_err_t err =
      hal_mod_tarn_call(module, mod_tarn_set_extra_service_info_audio_pid, slot, stream->settings.pid);
  if (err != HAL_OK) return err;
  return hal_mod_tarn_call(module, mod_tarn_set_extra_service_info_audio_stream_type, slot,
                           hal_to_mod_tarn_stream_type(type));
}

/* A foreign service in `slot`; `carried` tells whether it has audio or video, without which the
 * slot is not used. A slot holds one video and one audio stream: with more, the last ones stay. */
static hal_err_t hal_mod_tarn_psi_service(hal_mod_tarn_t* module, uint8_t slot, hal_service_t* service,
                                          uint8_t* carried) {
  *carried = 0;
  hal_err_t err = hal_mod_tarn_psi_identity(module, slot, service);
  lnklist_node_t* node;
  FOREACH_NODE(&service->stream_list, node) {
    if (err != HAL_OK) break;
    err = hal_mod_tarn_psi_stream(module, slot, reinterpret_cast<hal_stream_t*>(node), carried);
  }
  return err;
}

/* The module announces its own service itself: a service that ts_to carries takes no slot. */
static bool hal_mod_tarn_psi_foreign(hal_ts_t* ts_to, const hal_service_t* service) {
  return service->enabled && hal_ts_find_service_by_tag(ts_to, service->tag) == NULL;
}

/* Fills the slots from the first with the foreign services of ts_from, while slots are left;
 * `slot` ends at the first unused one. A service without audio or video leaves what it wrote in
 * its slot for the next service to overwrite. */
static hal_err_t hal_mod_tarn_psi_add(hal_mod_tarn_t* module, hal_ts_t* ts_to, hal_ts_t* ts_from,
                                      uint8_t* slot) {
  lnklist_node_t* node;
  FOREACH_NODE(&ts_from->service_list, node) {
    if (*slot >= MOD_TARN_EXTRA_SERVICE_INFO_SLOTS) break;
    hal_service_t* service = reinterpret_cast<hal_service_t*>(node);
    if (!hal_mod_tarn_psi_foreign(ts_to, service)) continue;
    uint8_t carried;
    hal_err_t err = hal_mod_tarn_psi_service(module, *slot, service, &carried);
    if (err != HAL_OK) return err;
    if (!carried) continue;
    err = hal_mod_tarn_call(module, mod_tarn_set_extra_service_info_enable, *slot, uint8_t{1});
    if (err != HAL_OK) return err;
    DBG_MSG("Add PSI for service [\"%s\"] (slot: %d)", service->settings.service_name,
            static_cast<int>(*slot));
    (*slot)++;
  }
  return HAL_OK;
}

static hal_err_t hal_mod_tarn_psi_remove(hal_mod_tarn_t* module, uint8_t slot) {
  for (; slot < MOD_TARN_EXTRA_SERVICE_INFO_SLOTS; slot++) {
    DBG_MSG("Remove PSI (slot: %d)", static_cast<int>(slot));
    hal_err_t err = hal_mod_tarn_call(module, mod_tarn_set_extra_service_info_enable, slot, uint8_t{0});
    if (err != HAL_OK) return err;
  }
  return HAL_OK;
}

/* A failing command ends the synchronisation at once: the slots not reached keep what they had. */
hal_err_t hal_mod_tarn_sync_psi(hal_ts_t* ts_to, hal_ts_t* ts_from) {
  hal_mod_tarn_t* module = hal_mod_tarn_of(ts_to->hal_object.user);
  DBG_MSG("<SYNC_PSI> hal_mod_tarn");
  uint8_t slot = 0;
  hal_err_t err = hal_mod_tarn_psi_add(module, ts_to, ts_from, &slot);
  if (err == HAL_OK) err = hal_mod_tarn_psi_remove(module, slot);
  if (err != HAL_OK) return err;
  DBG_WRN("C");
  DBG_MSG("</SYNC_PSI> hal_mod_tarn");
  return hal_mod_tarn_result(module, HAL_OK);
}

/* ---- construction ---- */

/* An object made on the module: the module object is its user and gives its texts. */
static void hal_mod_tarn_bind(hal_object_t* object, hal_mod_tarn_t* module) {
  object->user = module;
  object->strerror = module->hal_object.strerror;
}

/* Services and streams take their user and texts from their parent. */
static void hal_mod_tarn_inherit(hal_object_t* object, const hal_object_t* parent) {
  object->user = parent->user;
  object->strerror = parent->strerror;
}

/* A constructor's failure: it deletes what it built (null when nothing) and says so. */
template <typename T>
static T* hal_mod_tarn_fail(T* built, const char* func) {
  DBG_WRN_AT(func, "Could not create");
  if (built != NULL) built->hal_object.delete_(&built->hal_object);
  return NULL;
}

hal_mod_tarn_t* new_hal_mod_tarn(const char* name, uint8_t i2c_addr, hal_i2c_t* hal_i2c) {
  hal_mod_tarn_t* module = hal_new<hal_mod_tarn_t>(HAL_MOD_TARN, delete_hal_mod_tarn, __func__);
  if (module == NULL) return NULL;
  module->hal_object.user = &module->mod_tarn;
  module->hal_object.strerror = hal_mod_tarn_strerror;
  mod_tarn_init(&module->mod_tarn, name, i2c_addr, &hal_i2c->i2c);
  return module;
}

void delete_hal_mod_tarn(hal_object_t* object) { delete_hal_object(object); }

typedef decltype(hal_stream_t::set) hal_mod_tarn_stream_set_t;
typedef decltype(hal_stream_t::get) hal_mod_tarn_stream_get_t;

/* A stream of the module's service with the given operations, loaded from the module. */
static hal_stream_t* hal_mod_tarn_service_new_stream(hal_service_t* service,
                                                     const hal_mod_tarn_stream_set_t& set,
                                                     const hal_mod_tarn_stream_get_t& get, const char* func) {
  hal_stream_t* stream = hal_service_new_stream(service);
  if (stream == NULL) return hal_mod_tarn_fail(stream, func);
  hal_mod_tarn_inherit(&stream->hal_object, &service->hal_object);
  stream->set = set;
  stream->get = get;
  if (hal_stream_get_all(stream) != HAL_OK) return hal_mod_tarn_fail(stream, func);
  return stream;
}

static hal_stream_t* hal_mod_tarn_service_new_audio_stream(hal_service_t* service) {
  return hal_mod_tarn_service_new_stream(
      service,
      {hal_mod_tarn_set_audio_pid, hal_mod_tarn_set_audio_stream_type, hal_mod_tarn_set_audio_bitrate},
      {hal_mod_tarn_get_audio_pid, hal_mod_tarn_get_audio_stream_type, hal_mod_tarn_get_audio_bitrate},
      __func__);
}

static hal_stream_t* hal_mod_tarn_service_new_video_stream(hal_service_t* service) {
  return hal_mod_tarn_service_new_stream(
      service,
      {hal_mod_tarn_set_video_pid, hal_mod_tarn_set_video_stream_type, hal_mod_tarn_set_video_bitrate},
      {hal_mod_tarn_get_video_pid, hal_mod_tarn_get_video_stream_type, hal_mod_tarn_get_video_bitrate},
      __func__);
}

/* The module's one service: an audio stream, then a video stream. Its on/off switch stays in memory. */
static hal_service_t* hal_mod_tarn_ts_new_service(hal_ts_t* ts) {
  hal_service_t* service = hal_ts_new_service(ts);
  if (service == NULL) return hal_mod_tarn_fail(service, __func__);
  hal_mod_tarn_inherit(&service->hal_object, &ts->hal_object);
  service->set = {hal_mod_tarn_set_sid, hal_mod_tarn_set_service_type, hal_mod_tarn_set_service_name,
                  hal_mod_tarn_set_lcn, hal_mod_tarn_set_pmt_pid,      service->set.enabled};
  service->get = {hal_mod_tarn_get_sid, hal_mod_tarn_get_service_type, hal_mod_tarn_get_service_name,
                  hal_mod_tarn_get_lcn, hal_mod_tarn_get_pmt_pid,      service->get.enabled};
  if (hal_mod_tarn_service_new_audio_stream(service) == NULL ||
      hal_mod_tarn_service_new_video_stream(service) == NULL || hal_service_get_all(service) != HAL_OK) {
    return hal_mod_tarn_fail(service, __func__);
  }
  return service;
}

/* The TS the module produces, with its one service, loaded from the module. */
static hal_ts_t* new_hal_mod_tarn_ts(hal_mod_tarn_t* module) {
  hal_ts_t* ts = new_hal_ts();
  if (ts == NULL) return hal_mod_tarn_fail(ts, __func__);
  hal_mod_tarn_bind(&ts->hal_object, module);
  ts->set = {hal_mod_tarn_set_tsid,         hal_mod_tarn_set_onid,
             hal_mod_tarn_set_nid,          hal_mod_tarn_set_private_data_specifier,
             hal_mod_tarn_set_network_name, hal_mod_tarn_set_network_version};
  ts->get = {hal_mod_tarn_get_tsid,         hal_mod_tarn_get_onid,
             hal_mod_tarn_get_nid,          hal_mod_tarn_get_private_data_specifier,
             hal_mod_tarn_get_network_name, hal_mod_tarn_get_network_version};
  ts->sync.psi = hal_mod_tarn_sync_psi;
  if (hal_mod_tarn_ts_new_service(ts) == NULL || hal_ts_get_all(ts) != HAL_OK) {
    return hal_mod_tarn_fail(ts, __func__);
  }
  return ts;
}

hal_input_hdmi_t* new_hal_mod_tarn_input_hdmi(hal_mod_tarn_t* hal_mod_tarn) {
  hal_input_hdmi_t* hdmi = new_hal_input_hdmi();
  if (hdmi == NULL) return hal_mod_tarn_fail(hdmi, __func__);
  hal_mod_tarn_bind(&hdmi->hal_object, hal_mod_tarn);
  hdmi->hal_object.delete_ = delete_hal_mod_tarn_input_hdmi;
  hdmi->apply = hal_mod_tarn_apply;
  hdmi->set = {hal_mod_tarn_set_video_bitrate, hal_mod_tarn_set_video_gopsize, hal_mod_tarn_set_audio_bitrate,
               hal_mod_tarn_set_hw_debug_code};
  hdmi->get = {hal_mod_tarn_get_video_bitrate, hal_mod_tarn_get_video_gopsize, hal_mod_tarn_get_audio_bitrate,
               hal_mod_tarn_get_input_hdmi_status, hal_mod_tarn_get_hw_debug_code};
  hdmi->tsout = new_hal_mod_tarn_ts(hal_mod_tarn);
  if (hdmi->tsout == NULL || hal_input_hdmi_get_all(hdmi) != HAL_OK) {
    return hal_mod_tarn_fail(hdmi, __func__);
  }
  return hdmi;
}

void delete_hal_mod_tarn_input_hdmi(hal_object_t* object) { delete_hal_input_hdmi(object); }

hal_output_rf_t* new_hal_mod_tarn_output_rf(hal_mod_tarn_t* hal_mod_tarn, hal_ts_t* tsin) {
  hal_output_rf_t* rf = new_hal_output_rf(tsin);
  if (rf == NULL) return hal_mod_tarn_fail(rf, __func__);
  hal_mod_tarn_bind(&rf->hal_object, hal_mod_tarn);
  rf->hal_object.delete_ = delete_hal_mod_tarn_output_rf;
  rf->apply = hal_mod_tarn_apply;
  rf->set = {hal_mod_tarn_set_output_type,   hal_mod_tarn_set_level,
             hal_mod_tarn_set_enable,        hal_mod_tarn_set_frequency,
             hal_mod_tarn_set_bandwidth,     hal_mod_tarn_set_symbolrate,
             hal_mod_tarn_set_constellation, hal_mod_tarn_set_guardinterval,
             hal_mod_tarn_set_coderate,      hal_mod_tarn_set_fftmode,
             hal_mod_tarn_set_carriertype,   hal_mod_tarn_set_interleave,
             hal_mod_tarn_set_syncframe,     hal_mod_tarn_set_cal};
  rf->get = {hal_mod_tarn_get_output_type,
             hal_mod_tarn_get_level,
             hal_mod_tarn_get_enable,
             hal_mod_tarn_get_frequency,
             hal_mod_tarn_get_bandwidth,
             hal_mod_tarn_get_symbolrate,
             hal_mod_tarn_get_constellation,
             hal_mod_tarn_get_guardinterval,
             hal_mod_tarn_get_coderate,
             hal_mod_tarn_get_fftmode,
             hal_mod_tarn_get_carriertype,
             hal_mod_tarn_get_interleave,
             hal_mod_tarn_get_syncframe,
             hal_mod_tarn_get_output_rf_status,
             hal_mod_tarn_get_cal};
  if (hal_output_rf_get_all(rf) != HAL_OK) return hal_mod_tarn_fail(rf, __func__);
  return rf;
}

void delete_hal_mod_tarn_output_rf(hal_object_t* object) { delete_hal_output_rf(object); }
