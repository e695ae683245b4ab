#include "cmd_json_ts.h"

#include <type_traits>

#include "hal_ts.h"

namespace {

/* The record and value of a HAL setter, getter or look-up: (*)(record*, value, ...). */
template <typename F>
struct hal_accessor;
template <typename Ret, typename R, typename V, typename... Rest>
struct hal_accessor<Ret (*)(R*, V, Rest...)> {
  using record = R;
  using value = V;
};

template <typename F>
typename hal_accessor<F>::record* cmd_json_record(hal_object_t* object) {
  return reinterpret_cast<typename hal_accessor<F>::record*>(object);
}

/* The number is cut to the low bits of the field's width before the HAL sees it: the
 * wrap-around is deliberate, limits belong to the HAL and the drivers. */
template <typename Width, typename Setter>
cmd_json_err_t cmd_json_set_number(Setter setter, hal_object_t* object, json_t* j_val) {
  uint32_t value = 0;
  cmd_json_err_t err = cmd_json_strargtou32(&value, NULL, j_val);
  if (err != CMD_JSON_OK) return err;
  using value_t = typename hal_accessor<Setter>::value;
  return cmd_json_translate_hal_err(
      setter(cmd_json_record<Setter>(object), static_cast<value_t>(static_cast<Width>(value))));
}

template <typename Getter>
cmd_json_err_t cmd_json_get_number(Getter getter, const char* func, hal_object_t* object, json_t** j_val) {
  std::remove_pointer_t<typename hal_accessor<Getter>::value> value{};
  if (getter(cmd_json_record<Getter>(object), &value) != HAL_OK)
    return cmd_json_translate_hal_err(object->err);
  return cmd_json_number(func, static_cast<uint32_t>(value), j_val);
}

template <typename Setter>
cmd_json_err_t cmd_json_set_text(Setter setter, hal_object_t* object, json_t* j_val) {
  if (!json_is_string(j_val)) return CMD_JSON_ARG_FRMT_ERR;
  return cmd_json_translate_hal_err(setter(cmd_json_record<Setter>(object), json_string_value(j_val)));
}

/* The HAL copies out HAL_TS_TEXT_SIZE characters whatever size it is given. */
template <typename Getter>
cmd_json_err_t cmd_json_get_text(Getter getter, const char* func, hal_object_t* object, json_t** j_val) {
  char text[HAL_TS_TEXT_SIZE] = "";
  if (getter(cmd_json_record<Getter>(object), text, sizeof(text)) != HAL_OK)
    return cmd_json_translate_hal_err(object->err);
  return cmd_json_text(func, text, j_val);
}

template <typename T>
cmd_json_err_t cmd_json_get_tag(const char* func, hal_object_t* object, json_t** j_val) {
  return cmd_json_number(func, reinterpret_cast<T*>(object)->tag, j_val);
}

/* cmd_json_<kind>_set_<field> and cmd_json_<kind>_get_<field> over hal_<kind>_set_<field> and
 * hal_<kind>_get_<field>; the setter keeps the low bits of `width`. */
#define CMD_JSON_TS_NUMBER(kind, field, width)                                         \
  cmd_json_err_t cmd_json_##kind##_set_##field(hal_object_t* object, json_t* j_val) {  \
    return cmd_json_set_number<width>(hal_##kind##_set_##field, object, j_val);        \
  }                                                                                    \
  cmd_json_err_t cmd_json_##kind##_get_##field(hal_object_t* object, json_t** j_val) { \
    return cmd_json_get_number(hal_##kind##_get_##field, __func__, object, j_val);     \
  }

#define CMD_JSON_TS_TEXT(kind, field)                                                  \
  cmd_json_err_t cmd_json_##kind##_set_##field(hal_object_t* object, json_t* j_val) {  \
    return cmd_json_set_text(hal_##kind##_set_##field, object, j_val);                 \
  }                                                                                    \
  cmd_json_err_t cmd_json_##kind##_get_##field(hal_object_t* object, json_t** j_val) { \
    return cmd_json_get_text(hal_##kind##_get_##field, __func__, object, j_val);       \
  }

CMD_JSON_TS_NUMBER(ts, tsid, uint16_t)
CMD_JSON_TS_NUMBER(ts, onid, uint16_t)
CMD_JSON_TS_NUMBER(ts, nid, uint16_t)
CMD_JSON_TS_NUMBER(ts, private_data_specifier, uint32_t)
CMD_JSON_TS_TEXT(ts, network_name)
CMD_JSON_TS_NUMBER(ts, network_version, uint8_t)

CMD_JSON_TS_NUMBER(service, sid, uint16_t)
CMD_JSON_TS_NUMBER(service, type, uint8_t)
CMD_JSON_TS_TEXT(service, name)
CMD_JSON_TS_NUMBER(service, lcn, uint16_t)
CMD_JSON_TS_NUMBER(service, pmt_pid, uint16_t)
CMD_JSON_TS_NUMBER(service, enabled, uint8_t)

CMD_JSON_TS_NUMBER(stream, pid, uint16_t)
CMD_JSON_TS_NUMBER(stream, type, uint32_t)
CMD_JSON_TS_NUMBER(stream, bitrate, uint16_t)

cmd_json_err_t cmd_json_ts_get_id(hal_object_t* object, json_t** j_val) {
  return cmd_json_get_tag<hal_ts_t>(__func__, object, j_val);
}

cmd_json_err_t cmd_json_service_get_id(hal_object_t* object, json_t** j_val) {
  return cmd_json_get_tag<hal_service_t>(__func__, object, j_val);
}

cmd_json_err_t cmd_json_stream_get_id(hal_object_t* object, json_t** j_val) {
  return cmd_json_get_tag<hal_stream_t>(__func__, object, j_val);
}

/* ---- services and streams, addressed by their tags ---- */

/* Any failure to read a tag means the tag is missing, whatever the conversion said. */
cmd_json_err_t cmd_json_read_tag(uint32_t* tag, const char* tag_key, json_t* j_args) {
  return cmd_json_strargtou32(tag, tag_key, j_args) == CMD_JSON_OK ? CMD_JSON_OK : CMD_JSON_ARG_MANDATORY;
}

template <typename Find>
hal_object_t* cmd_json_find_member(Find find, hal_object_t* parent, uint32_t tag) {
  return reinterpret_cast<hal_object_t*>(find(cmd_json_record<Find>(parent), tag));
}

/* The member of `parent` named by `tag_key` of the arguments takes the keys of `args`. */
template <typename Find>
cmd_json_err_t cmd_json_set_member(Find find, const char* tag_key, const cmd_json_arg_t* args,
                                   hal_object_t* parent, json_t* j_args) {
  uint32_t tag = 0;
  cmd_json_err_t err = cmd_json_read_tag(&tag, tag_key, j_args);
  if (err != CMD_JSON_OK) return err;
  hal_object_t* member = cmd_json_find_member(find, parent, tag);
  if (member == NULL) return CMD_JSON_ARG_OOB;
  return cmd_json_set_args(member, args, j_args);
}

/* Elements only address existing members: nothing is created, deleted or reordered. They apply
 * in order, and what was applied stays when a later element fails. */
template <typename Find>
cmd_json_err_t cmd_json_set_members(Find find, const char* tag_key, const cmd_json_arg_t* args,
                                    hal_object_t* parent, json_t* j_val) {
  if (!json_is_array(j_val)) return CMD_JSON_ARG_FRMT_ERR;
  json_t* element;
  for (size_t i = 0; i < json_array_size(j_val) && (element = json_array_get(j_val, i)) != NULL; i++) {
    cmd_json_err_t err = cmd_json_set_member(find, tag_key, args, parent, element);
    if (err != CMD_JSON_OK) return err;
  }
  return CMD_JSON_OK;
}

/* One object per member of `list`, head to tail. */
cmd_json_err_t cmd_json_get_members(const char* func, lnklist_t* list, const cmd_json_arg_t* args,
                                    json_t** j_val) {
  json_ptr array(json_array());
  if (!array) return cmd_json_value_error(func);
  lnklist_node_t* node;
  FOREACH_NODE(list, node) {
    json_t* raw = NULL;
    cmd_json_err_t err = cmd_json_get_args(reinterpret_cast<hal_object_t*>(node), args, &raw);
    json_ptr member(raw);
    if (err != CMD_JSON_OK) return err;
    if (json_array_append(array.get(), member.get()) != 0) return cmd_json_value_error(func);
  }
  *j_val = array.release();
  return CMD_JSON_OK;
}

cmd_json_err_t cmd_json_ts_set_services_ext(hal_object_t* object, json_t* j_val) {
  return cmd_json_set_members(hal_ts_find_service_by_tag, "service_tag", cmd_json_service_ext_args, object,
                              j_val);
}

cmd_json_err_t cmd_json_ts_get_services_ext(hal_object_t* object, json_t** j_val) {
  return cmd_json_get_members(__func__, &reinterpret_cast<hal_ts_t*>(object)->service_list,
                              cmd_json_service_ext_args, j_val);
}

cmd_json_err_t cmd_json_service_set_streams(hal_object_t* object, json_t* j_val) {
  return cmd_json_set_members(hal_service_find_stream_by_tag, "stream_tag", cmd_json_stream_args, object,
                              j_val);
}

cmd_json_err_t cmd_json_service_get_streams(hal_object_t* object, json_t** j_val) {
  return cmd_json_get_members(__func__, &reinterpret_cast<hal_service_t*>(object)->stream_list,
                              cmd_json_stream_args, j_val);
}

/* The streams of one service, each followed by its service's tag. */
cmd_json_err_t cmd_json_append_streams(const char* func, json_t* array, hal_service_t* service) {
  const cmd_json_decimal_t tag = cmd_json_decimal(service->tag);
  lnklist_node_t* node;
  FOREACH_NODE(&service->stream_list, node) {
    json_t* raw = NULL;
    cmd_json_err_t err = cmd_json_get_args(reinterpret_cast<hal_object_t*>(node), cmd_json_stream_args, &raw);
    json_ptr stream(raw);
    if (err != CMD_JSON_OK) return err;
    if (json_is_object(stream.get()) &&
        json_object_set_new(stream.get(), "service_tag", json_string(tag.text)) != 0)
      return cmd_json_value_error(func);
    if (json_array_append(array, stream.get()) != 0) return cmd_json_value_error(func);
  }
  return CMD_JSON_OK;
}

}  // namespace

/* The rows a plain and an extended table share. */
// clang-format off
#define CMD_JSON_TS_ROWS                                                                                 \
  {"ts_tag", NULL, cmd_json_ts_get_id, 0},                                                               \
  {"tsid", cmd_json_ts_set_tsid, cmd_json_ts_get_tsid, 0},                                               \
  {"onid", cmd_json_ts_set_onid, cmd_json_ts_get_onid, 0},                                               \
  {"nid", cmd_json_ts_set_nid, cmd_json_ts_get_nid, 0},                                                  \
  {"private_data_specifier", cmd_json_ts_set_private_data_specifier,                                     \
   cmd_json_ts_get_private_data_specifier, 0},                                                           \
  {"network_name", cmd_json_ts_set_network_name, cmd_json_ts_get_network_name, 0},                       \
  {"network_version", cmd_json_ts_set_network_version, cmd_json_ts_get_network_version, 0}

#define CMD_JSON_SERVICE_ROWS                                                                            \
  {"service_tag", NULL, cmd_json_service_get_id, 0},                                                     \
  {"sid", cmd_json_service_set_sid, cmd_json_service_get_sid, 0},                                        \
  {"type", cmd_json_service_set_type, cmd_json_service_get_type, 0},                                     \
  {"service_name", cmd_json_service_set_name, cmd_json_service_get_name, 0},                             \
  {"lcn", cmd_json_service_set_lcn, cmd_json_service_get_lcn, 0},                                        \
  {"pmt_pid", cmd_json_service_set_pmt_pid, cmd_json_service_get_pmt_pid, 0},                            \
  {"enabled", cmd_json_service_set_enabled, cmd_json_service_get_enabled, 0}
// clang-format on

const cmd_json_arg_t cmd_json_ts_args[] = {CMD_JSON_TS_ROWS, {NULL, NULL, NULL, 0}};

const cmd_json_arg_t cmd_json_ts_ext_args[] = {
    CMD_JSON_TS_ROWS,
    {"services", cmd_json_ts_set_services_ext, cmd_json_ts_get_services_ext, 0, NULL, NULL,
     cmd_json_service_ext_args},
    {NULL, NULL, NULL, 0},
};

const cmd_json_arg_t cmd_json_service_args[] = {CMD_JSON_SERVICE_ROWS, {NULL, NULL, NULL, 0}};

const cmd_json_arg_t cmd_json_service_ext_args[] = {
    CMD_JSON_SERVICE_ROWS,
    {"streams", cmd_json_service_set_streams, cmd_json_service_get_streams, 0, NULL, NULL,
     cmd_json_stream_args},
    {NULL, NULL, NULL, 0},
};

const cmd_json_arg_t cmd_json_stream_args[] = {
    {"stream_tag", NULL, cmd_json_stream_get_id, 0},
    {"pid", cmd_json_stream_set_pid, cmd_json_stream_get_pid, 0},
    {"type", cmd_json_stream_set_type, cmd_json_stream_get_type, 0},
    {"bitrate", cmd_json_stream_set_bitrate, cmd_json_stream_get_bitrate, 0},
    {NULL, NULL, NULL, 0},
};

CMD_JSON_TABLE_HANDLERS(cmd_json_set_ts, cmd_json_get_ts, cmd_json_ts_args)
CMD_JSON_TABLE_HANDLERS(cmd_json_set_ts_ext, cmd_json_get_ts_ext, cmd_json_ts_ext_args)

cmd_json_err_t cmd_json_ts_set_service(hal_object_t* object, json_t* j_val) {
  return cmd_json_set_member(hal_ts_find_service_by_tag, "service_tag", cmd_json_service_args, object, j_val);
}

cmd_json_err_t cmd_json_ts_get_services(hal_object_t* object, json_t** j_val) {
  return cmd_json_get_members(__func__, &reinterpret_cast<hal_ts_t*>(object)->service_list,
                              cmd_json_service_args, j_val);
}

/* Both tags are read before either is looked up. */
cmd_json_err_t cmd_json_ts_set_stream(hal_object_t* object, json_t* j_val) {
  uint32_t service_tag = 0;
  uint32_t stream_tag = 0;
  if (cmd_json_read_tag(&service_tag, "service_tag", j_val) != CMD_JSON_OK ||
      cmd_json_read_tag(&stream_tag, "stream_tag", j_val) != CMD_JSON_OK)
    return CMD_JSON_ARG_MANDATORY;
  hal_object_t* service = cmd_json_find_member(hal_ts_find_service_by_tag, object, service_tag);
  if (service == NULL) return CMD_JSON_ARG_OOB;
  hal_object_t* stream = cmd_json_find_member(hal_service_find_stream_by_tag, service, stream_tag);
  if (stream == NULL) return CMD_JSON_ARG_OOB;
  return cmd_json_set_args(stream, cmd_json_stream_args, j_val);
}

cmd_json_err_t cmd_json_ts_get_streams(hal_object_t* object, json_t** j_val) {
  json_ptr array(json_array());
  if (!array) return cmd_json_value_error(__func__);
  lnklist_node_t* node;
  FOREACH_NODE(&reinterpret_cast<hal_ts_t*>(object)->service_list, node) {
    cmd_json_err_t err =
        cmd_json_append_streams(__func__, array.get(), reinterpret_cast<hal_service_t*>(node));
    if (err != CMD_JSON_OK) return err;
  }
  *j_val = array.release();
  return CMD_JSON_OK;
}
