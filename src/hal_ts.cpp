#include "hal_ts.h"

#include <string.h>

#include "dbg.h"

uint32_t hal_ts_tag = 0;
uint32_t hal_service_tag = 0;
uint32_t hal_stream_tag = 0;

/* ---- creation and destruction ---- */

static void delete_hal_ts(hal_object_t* object) {
  hal_ts_delete_services(reinterpret_cast<hal_ts_t*>(object));
  delete_hal_object(object);
}

static void delete_hal_service(hal_object_t* object) {
  hal_service_delete_streams(reinterpret_cast<hal_service_t*>(object));
  delete_hal_object(object);
}

/* A zero-filled record with its header and the next tag of its kind; pushed into `list` when
 * one is given. */
template <typename T>
static T* hal_ts_record(hal_object_type_t type, void (*delete_)(hal_object_t*), uint32_t* counter,
                        lnklist_t* list, const char* func) {
  T* record = hal_new<T>(type, delete_, func);
  if (record == NULL) return NULL;
  record->tag = (*counter)++;
  if (list != NULL) lnklist_push_node(list, &record->hal_object.node);
  return record;
}

hal_ts_t* new_hal_ts(void) {
  return hal_ts_record<hal_ts_t>(HAL_TS, delete_hal_ts, &hal_ts_tag, NULL, __func__);
}

hal_service_t* hal_ts_new_service(hal_ts_t* hal_ts) {
  return hal_ts_record<hal_service_t>(HAL_SERVICE, delete_hal_service, &hal_service_tag,
                                      &hal_ts->service_list, __func__);
}

hal_stream_t* hal_service_new_stream(hal_service_t* hal_service) {
  return hal_ts_record<hal_stream_t>(HAL_STREAM, delete_hal_object, &hal_stream_tag,
                                     &hal_service->stream_list, __func__);
}

static void hal_delete_members(lnklist_t* list) {
  while (list->head != NULL) {
    hal_object_t* member = reinterpret_cast<hal_object_t*>(list->head);
    member->delete_(member);
  }
}

void hal_ts_delete(hal_ts_t* hal_ts) {
  if (hal_ts != NULL) hal_ts->hal_object.delete_(&hal_ts->hal_object);
}

void hal_ts_delete_services(hal_ts_t* hal_ts) { hal_delete_members(&hal_ts->service_list); }
void hal_service_delete_streams(hal_service_t* hal_service) { hal_delete_members(&hal_service->stream_list); }

/* ---- setters and getters ---- */

#define HAL_TS_TEXT_ACCESSORS(record, field, op, stored)                                                    \
  hal_err_t record##_set_##field(record##_t* object, const char* text) {                                    \
    return hal_set_text(&object->hal_object, object->set.op, object->stored, HAL_TS_TEXT_SIZE, text);       \
  }                                                                                                         \
  hal_err_t record##_get_##field(record##_t* object, char* text, size_t size) {                             \
    return hal_get_text(&object->hal_object, object->get.op, object->stored, text, size, HAL_TS_TEXT_SIZE); \
  }

HAL_VALUE_ACCESSORS(hal_ts, tsid, tsid, settings.tsid, uint16_t)
HAL_VALUE_ACCESSORS(hal_ts, onid, onid, settings.onid, uint16_t)
HAL_VALUE_ACCESSORS(hal_ts, nid, nid, settings.nid, uint16_t)
HAL_VALUE_ACCESSORS(hal_ts, private_data_specifier, private_data_specifier, settings.private_data_specifier,
                    uint32_t)
HAL_TS_TEXT_ACCESSORS(hal_ts, network_name, network_name, settings.network_name)
HAL_VALUE_ACCESSORS(hal_ts, network_version, network_version, settings.network_version, uint8_t)

HAL_VALUE_ACCESSORS(hal_service, sid, sid, settings.sid, uint16_t)
HAL_TS_TEXT_ACCESSORS(hal_service, name, service_name, settings.service_name)
HAL_VALUE_ACCESSORS(hal_service, lcn, lcn, settings.lcn, uint16_t)
HAL_VALUE_ACCESSORS(hal_service, pmt_pid, pmt_pid, settings.pmt_pid, uint16_t)

HAL_VALUE_ACCESSORS(hal_stream, pid, pid, settings.pid, uint16_t)
HAL_VALUE_ACCESSORS(hal_stream, type, type, settings.type, hal_stream_type_t)
HAL_VALUE_ACCESSORS(hal_stream, bitrate, bitrate, settings.bitrate_kbps, uint16_t)

/* The service type is taken as 16 bits and cut to the 8 it has. */
hal_err_t hal_service_set_type(hal_service_t* hal_service, uint16_t type) {
  return hal_set_value<uint8_t>(&hal_service->hal_object, hal_service->set.type, &hal_service->settings.type,
                                static_cast<uint8_t>(type));
}

hal_err_t hal_service_get_type(hal_service_t* hal_service, uint8_t* type) {
  return hal_get_value<uint8_t>(&hal_service->hal_object, hal_service->get.type, &hal_service->settings.type,
                                type);
}

/* The driver switches a service by its tag. */
hal_err_t hal_service_set_enabled(hal_service_t* hal_service, uint8_t enabled) {
  return hal_set_value<uint8_t>(&hal_service->hal_object, hal_service->set.enabled, &hal_service->enabled,
                                enabled, hal_service->tag);
}

hal_err_t hal_service_get_enabled(hal_service_t* hal_service, uint8_t* enabled) {
  return hal_get_value<uint8_t>(&hal_service->hal_object, hal_service->get.enabled, &hal_service->enabled,
                                enabled, hal_service->tag);
}

/* ---- whole records ---- */

hal_err_t hal_ts_set_all(hal_ts_t* hal_ts) {
  static hal_err_t (*const steps[])(hal_ts_t*) = {
      [](hal_ts_t* t) { return hal_ts_set_tsid(t, t->settings.tsid); },
      [](hal_ts_t* t) { return hal_ts_set_onid(t, t->settings.onid); },
      [](hal_ts_t* t) { return hal_ts_set_nid(t, t->settings.nid); },
      [](hal_ts_t* t) { return hal_ts_set_private_data_specifier(t, t->settings.private_data_specifier); },
      [](hal_ts_t* t) { return hal_ts_set_network_name(t, t->settings.network_name); },
      [](hal_ts_t* t) { return hal_ts_set_network_version(t, t->settings.network_version); },
  };
  return hal_run_all(hal_ts, steps);
}

hal_err_t hal_ts_get_all(hal_ts_t* hal_ts) {
  static hal_err_t (*const steps[])(hal_ts_t*) = {
      [](hal_ts_t* t) { return hal_ts_get_tsid(t, &t->settings.tsid); },
      [](hal_ts_t* t) { return hal_ts_get_onid(t, &t->settings.onid); },
      [](hal_ts_t* t) { return hal_ts_get_nid(t, &t->settings.nid); },
      [](hal_ts_t* t) { return hal_ts_get_private_data_specifier(t, &t->settings.private_data_specifier); },
      [](hal_ts_t* t) { return hal_ts_get_network_name(t, t->settings.network_name, HAL_TS_TEXT_SIZE); },
      [](hal_ts_t* t) { return hal_ts_get_network_version(t, &t->settings.network_version); },
  };
  return hal_run_all(hal_ts, steps);
}

hal_err_t hal_service_set_all(hal_service_t* hal_service) {
  static hal_err_t (*const steps[])(hal_service_t*) = {
      [](hal_service_t* s) { return hal_service_set_sid(s, s->settings.sid); },
      [](hal_service_t* s) { return hal_service_set_type(s, s->settings.type); },
      [](hal_service_t* s) { return hal_service_set_name(s, s->settings.service_name); },
      [](hal_service_t* s) { return hal_service_set_lcn(s, s->settings.lcn); },
      [](hal_service_t* s) { return hal_service_set_pmt_pid(s, s->settings.pmt_pid); },
      [](hal_service_t* s) { return hal_service_set_enabled(s, s->enabled); },
  };
  return hal_run_all(hal_service, steps);
}

hal_err_t hal_service_get_all(hal_service_t* hal_service) {
  static hal_err_t (*const steps[])(hal_service_t*) = {
      [](hal_service_t* s) { return hal_service_get_sid(s, &s->settings.sid); },
      [](hal_service_t* s) { return hal_service_get_type(s, &s->settings.type); },
      [](hal_service_t* s) { return hal_service_get_name(s, s->settings.service_name, HAL_TS_TEXT_SIZE); },
      [](hal_service_t* s) { return hal_service_get_lcn(s, &s->settings.lcn); },
      [](hal_service_t* s) { return hal_service_get_pmt_pid(s, &s->settings.pmt_pid); },
      [](hal_service_t* s) { return hal_service_get_enabled(s, &s->enabled); },
  };
  return hal_run_all(hal_service, steps);
}

hal_err_t hal_stream_set_all(hal_stream_t* hal_stream) {
  static hal_err_t (*const steps[])(hal_stream_t*) = {
      [](hal_stream_t* s) { return hal_stream_set_pid(s, s->settings.pid); },
      [](hal_stream_t* s) { return hal_stream_set_type(s, s->settings.type); },
      [](hal_stream_t* s) { return hal_stream_set_bitrate(s, s->settings.bitrate_kbps); },
  };
  return hal_run_all(hal_stream, steps);
}

hal_err_t hal_stream_get_all(hal_stream_t* hal_stream) {
  static hal_err_t (*const steps[])(hal_stream_t*) = {
      [](hal_stream_t* s) { return hal_stream_get_pid(s, &s->settings.pid); },
      [](hal_stream_t* s) { return hal_stream_get_type(s, &s->settings.type); },
      [](hal_stream_t* s) { return hal_stream_get_bitrate(s, &s->settings.bitrate_kbps); },
  };
  return hal_run_all(hal_stream, steps);
}

/* ---- look-ups ---- */

/* The first member of the list that matches, walking from the head. */
template <typename T, typename Match>
static T* hal_find(lnklist_t* list, Match match) {
  lnklist_node_t* node;
  FOREACH_NODE(list, node) {
    T* member = reinterpret_cast<T*>(node);
    if (match(member)) return member;
  }
  return NULL;
}

hal_service_t* hal_ts_find_service(hal_ts_t* hal_ts, uint16_t sid) {
  return hal_find<hal_service_t>(&hal_ts->service_list,
                                 [sid](hal_service_t* s) { return s->settings.sid == sid; });
}

hal_service_t* hal_ts_find_service_by_tag(hal_ts_t* hal_ts, uint32_t tag) {
  return hal_find<hal_service_t>(&hal_ts->service_list, [tag](hal_service_t* s) { return s->tag == tag; });
}

hal_stream_t* hal_service_find_stream(hal_service_t* hal_service, uint16_t pid) {
  return hal_find<hal_stream_t>(&hal_service->stream_list,
                                [pid](hal_stream_t* s) { return s->settings.pid == pid; });
}

hal_stream_t* hal_service_find_stream_by_tag(hal_service_t* hal_service, uint32_t tag) {
  return hal_find<hal_stream_t>(&hal_service->stream_list, [tag](hal_stream_t* s) { return s->tag == tag; });
}

hal_err_t hal_ts_sync_psi(hal_ts_t* ts_to, hal_ts_t* ts_from) {
  ts_to->hal_object.err = ts_to->sync.psi != NULL ? ts_to->sync.psi(ts_to, ts_from) : HAL_OK;
  return ts_to->hal_object.err;
}

/* ---- change tests ---- */

static_assert(sizeof(hal_ts_settings_t) <= HAL_CRC_MEMO_SIZE, "a TS's checksum must fit its memo");
static_assert(sizeof(hal_service_settings_t) + 1 <= HAL_CRC_MEMO_SIZE,
              "a service's checksum must fit its memo");
static_assert(sizeof(hal_stream_settings_t) <= HAL_CRC_MEMO_SIZE, "a stream's checksum must fit its memo");

uint8_t hal_stream_changed(hal_stream_t* hal_stream, uint8_t update_crc) {
  return hal_settings_changed_memo(&hal_stream->crc_memo, &hal_stream->settings, sizeof(hal_stream->settings),
                                   &hal_stream->settings_crc, update_crc);
}

/* The service's checksum runs on over its `enabled` byte. */
static uint32_t hal_service_crc(hal_service_t* hal_service) {
  return hal_crc32_memo(&hal_service->crc_memo, &hal_service->settings, sizeof(hal_service->settings),
                        &hal_service->enabled, sizeof(hal_service->enabled));
}

uint8_t hal_service_changed(hal_service_t* hal_service, uint8_t update_crc) {
  uint8_t changed = 0;
  uint32_t crc = hal_service_crc(hal_service);
  if (crc != hal_service->settings_crc) {
    changed = 1;
    if (update_crc) hal_service->settings_crc = crc;
  }
  lnklist_node_t* node;
  FOREACH_NODE(&hal_service->stream_list, node) {
    changed |= hal_stream_changed(reinterpret_cast<hal_stream_t*>(node), update_crc);
  }
  return changed;
}

uint8_t hal_ts_changed(hal_ts_t* hal_ts, uint8_t update_crc) {
  uint8_t changed = 0;
  uint32_t crc = hal_crc32_memo(&hal_ts->crc_memo, &hal_ts->settings, sizeof(hal_ts->settings));
  if (crc != hal_ts->settings_crc) {
    DBG_WRN("crc calc %d ; crc stored %d !!", static_cast<int>(crc), static_cast<int>(hal_ts->settings_crc));
    changed = 1;
    if (update_crc) hal_ts->settings_crc = crc;
    DBG_WRN("stored crc %d !!", static_cast<int>(hal_ts->settings_crc));
  }
  lnklist_node_t* node;
  FOREACH_NODE(&hal_ts->service_list, node) {
    changed |= hal_service_changed(reinterpret_cast<hal_service_t*>(node), update_crc);
  }
  if (changed) DBG_WRN("ts_changed !!");
  return changed;
}

/* ---- mirroring ---- */

static void hal_service_log(const char* what, const hal_service_t* hal_service) {
  DBG_MSG("%s service (tag: %d, name: \"%s\", enabled: %d)", what, static_cast<int>(hal_service->tag),
          hal_service->settings.service_name, hal_service->enabled);
}

static int hal_ts_sources_carry(hal_ts_t* const* sources, size_t count, uint32_t tag) {
  for (size_t i = 0; i < count; i++) {
    if (sources[i] != NULL && hal_ts_find_service_by_tag(sources[i], tag) != NULL) return 1;
  }
  return 0;
}

void hal_ts_mirror_remove_stale(hal_ts_t* tsout, hal_ts_t* const* sources, size_t count,
                                const hal_ts_mirror_t* mirror) {
  lnklist_node_t* next;
  for (lnklist_node_t* node = tsout->service_list.head; node != NULL; node = next) {
    next = node->next;
    hal_service_t* service = reinterpret_cast<hal_service_t*>(node);
    if (hal_ts_sources_carry(sources, count, service->tag)) continue;
    DBG_MSG("Remove service (tag: %d, name: \"%s\")", static_cast<int>(service->tag),
            service->settings.service_name);
    /* The service's streams go with it. */
    service->hal_object.delete_(&service->hal_object);
    DBG_WRN_AT(mirror->func, "%s", mirror->stale_service);
    tsout->settings_crc++; /* a removal alone would not count as a change */
  }
}

static void hal_service_remove_stale_streams(hal_service_t* mirror_service, hal_service_t* source,
                                             const hal_ts_mirror_t* mirror) {
  lnklist_node_t* next;
  for (lnklist_node_t* node = mirror_service->stream_list.head; node != NULL; node = next) {
    next = node->next;
    hal_stream_t* stream = reinterpret_cast<hal_stream_t*>(node);
    if (hal_service_find_stream_by_tag(source, stream->tag) != NULL) continue;
    delete_hal_object(&stream->hal_object);
    DBG_WRN_AT(mirror->func, "%s", mirror->stale_stream);
    mirror_service->settings_crc++;
  }
}

/* Copies the settings of each stream of `source` into its mirror, creating the mirrors that are
 * missing; a stream that cannot be created is skipped. */
static void hal_service_mirror_streams(hal_service_t* mirror_service, hal_service_t* source) {
  lnklist_node_t* node;
  FOREACH_NODE(&source->stream_list, node) {
    hal_stream_t* stream = reinterpret_cast<hal_stream_t*>(node);
    hal_stream_t* copy = hal_service_find_stream_by_tag(mirror_service, stream->tag);
    if (copy == NULL) {
      copy = hal_service_new_stream(mirror_service);
      if (copy == NULL) continue;
      copy->tag = stream->tag;
    }
    memcpy(&copy->settings, &stream->settings, sizeof(copy->settings));
  }
}

static void hal_ts_mirror_service(hal_ts_t* tsout, hal_service_t* source, const hal_ts_mirror_t* mirror) {
  hal_service_t* copy = hal_ts_find_service_by_tag(tsout, source->tag);
  if (copy != NULL) {
    memcpy(&copy->settings, &source->settings, sizeof(copy->settings));
    hal_service_remove_stale_streams(copy, source, mirror);
    hal_service_mirror_streams(copy, source);
    hal_service_log("Update", copy);
    return;
  }
  copy = hal_ts_new_service(tsout);
  if (copy == NULL) return;
  memcpy(&copy->settings, &source->settings, sizeof(copy->settings));
  copy->tag = source->tag;
  hal_service_log("Add", copy);
  hal_service_mirror_streams(copy, source);
}

void hal_ts_mirror_services(hal_ts_t* tsout, hal_ts_t* tsin, const hal_ts_mirror_t* mirror) {
  lnklist_node_t* node;
  FOREACH_NODE(&tsin->service_list, node) {
    hal_ts_mirror_service(tsout, reinterpret_cast<hal_service_t*>(node), mirror);
  }
}

hal_err_t hal_ts_mirror_identity(hal_ts_t* to, hal_ts_t* from) {
  memcpy(&to->settings, &from->settings, sizeof(to->settings));
  hal_err_t err = hal_ts_set_all(to);
  DBG_MSG(
      "Update TSIN (TSID: %d, ONID: %d, NID: %d, private_data_spec: %d, network_name: \"%s\", "
      "network_version: %d)",
      to->settings.tsid, to->settings.onid, to->settings.nid,
      static_cast<int>(to->settings.private_data_specifier), to->settings.network_name,
      to->settings.network_version);
  return err;
}

uint8_t hal_ts_mirror_enabled(hal_ts_t* to, hal_ts_t* from) {
  uint8_t any_enabled = 0;
  lnklist_node_t* node;
  FOREACH_NODE(&to->service_list, node) {
    hal_service_t* service = reinterpret_cast<hal_service_t*>(node);
    hal_service_t* source = hal_ts_find_service_by_tag(from, service->tag);
    if (source == NULL) continue;
    service->enabled = source->enabled;
    hal_service_log("Update", service);
    if (service->enabled) any_enabled = 1;
  }
  return any_enabled;
}

void hal_ts_mirror_output(hal_ts_t* tsin, hal_ts_t* tsout, const hal_ts_mirror_t* mirror) {
  DBG_MSG("<SYNC_TSOUT>");
  hal_ts_mirror_remove_stale(tsout, &tsin, 1, mirror);
  hal_ts_mirror_services(tsout, tsin, mirror);
  DBG_MSG("</SYNC_TSOUT>");
  DBG_MSG("<SYNC_TSIN>");
  hal_ts_mirror_identity(tsin, tsout);
  if (mirror->after_identity != NULL) DBG_MSG("%s", mirror->after_identity);
  hal_ts_mirror_enabled(tsin, tsout);
  DBG_MSG("Update PSI");
  hal_ts_sync_psi(tsin, tsout);
  DBG_MSG("</SYNC_TSIN>");
}
