#include "tavid_schema.h"

#include <stdio.h>

#include "cmd_json.h"
#include "cmd_json_device.h"
#include "cmd_json_input_hdmi.h"
#include "cmd_json_output_ip.h"
#include "cmd_json_output_rf.h"
#include "cmd_json_ts.h"

namespace {

/* The argument table of an object's row, which the row itself does not name: the row is found
 * by one of its handlers. */
typedef struct tavid_schema_link_t {
  cmd_json_take_t get; /* the row whose get is this ... */
  cmd_json_put_t put;  /* ... or whose set or execute is this */
  /* What a set or execute takes and a get gives; NULL: nothing described (no arguments, or
   * arguments handed on as they come). */
  const cmd_json_arg_t* args;
  /* A table of keys read by a handler of its own (rows without handlers) whose get gives only
   * the rows from here on; NULL: all of them. */
  const cmd_json_arg_t* get_from;
  /* A get answers an array, one element per member; a set addresses one member by these tag
   * keys. */
  bool list;
  const cmd_json_arg_t* select[2];
} tavid_schema_link_t;

const tavid_schema_link_t tavid_schema_links[] = {
    {cmd_json_get_device_status, NULL, cmd_json_device_status_args, NULL, false, {}},
    {cmd_json_get_device, NULL, cmd_json_device_args, NULL, false, {}},
    {cmd_json_get_input_hdmi_ext, NULL, cmd_json_input_hdmi_ext_args, NULL, false, {}},
    {cmd_json_get_input_hdmi_enc, NULL, cmd_json_input_hdmi_enc_args, NULL, false, {}},
    {cmd_json_get_input_hdmi_ts, NULL, cmd_json_ts_args, NULL, false, {}},
    {cmd_json_get_input_hdmi_services, NULL, cmd_json_service_args, NULL, true, {cmd_json_service_args}},
    {cmd_json_get_input_hdmi_streams, NULL, cmd_json_stream_args, NULL, true,
     {cmd_json_service_args, cmd_json_stream_args}},
    {cmd_json_get_input_hdmi_status, NULL, cmd_json_input_hdmi_status_keys, NULL, false, {}},
    {cmd_json_get_input_hdmi_hw_debug_code, NULL, cmd_json_input_hdmi_debug_code_keys,
     cmd_json_input_hdmi_debug_code_keys + 1, false, {}},
    {cmd_json_get_output_rf_cal, NULL, cmd_json_output_rf_cal_keys, cmd_json_output_rf_cal_keys + 1, false, {}},
    {cmd_json_get_output_rf_ext, NULL, cmd_json_output_rf_ext_args, NULL, false, {}},
    {cmd_json_get_output_rf_mod, NULL, cmd_json_output_rf_mod_args, NULL, false, {}},
    {cmd_json_get_output_rf_ts, NULL, cmd_json_ts_args, NULL, false, {}},
    {cmd_json_get_output_rf_services, NULL, cmd_json_service_args, NULL, true, {cmd_json_service_args}},
    {cmd_json_get_output_rf_status, NULL, cmd_json_output_rf_status_keys, NULL, false, {}},
    {cmd_json_get_output_ip_ext, NULL, cmd_json_output_ip_ext_args, NULL, false, {}},
    {cmd_json_get_output_ip_dst, NULL, cmd_json_output_ip_dst_args, NULL, false, {}},
    {cmd_json_get_output_ip_ts, NULL, cmd_json_ts_args, NULL, false, {}},
    {cmd_json_get_output_ip_services, NULL, cmd_json_service_args, NULL, true, {cmd_json_service_args}},
    {cmd_json_get_output_ip_status, NULL, cmd_json_output_ip_status_args, NULL, false, {}},
    {cmd_json_get_output_ip_ifconfig, NULL, NULL, NULL, false, {}},
    {NULL, cmd_store_settings, NULL, NULL, false, {}},
    {NULL, cmd_restore_settings, NULL, NULL, false, {}},
    {NULL, cmd_reset, cmd_json_reset_args, NULL, false, {}},
};

const tavid_schema_link_t* tavid_schema_link(const cmd_json_object_t& object) {
  for (const tavid_schema_link_t& link : tavid_schema_links) {
    if (link.get != NULL && link.get == object.get) return &link;
    if (link.put != NULL && (link.put == object.set || link.put == object.execute)) return &link;
  }
  return NULL;
}

/* Which actions the object answers, so that an argument says only what differs. */
typedef struct tavid_schema_scope_t {
  bool takes; /* set or execute */
  bool gives; /* get */
  const cmd_json_arg_t* get_from;
} tavid_schema_scope_t;

bool tavid_schema_put(json_t* target, const char* key, json_t* value) {
  return value != NULL && json_object_set_new(target, key, value) == 0;
}

// NOLINTBEGIN(misc-no-recursion): the tables nest three deep (ts, services, streams), none in itself
json_t* tavid_schema_args(const cmd_json_arg_t* args, const tavid_schema_scope_t& scope);

json_t* tavid_schema_words(cmd_json_words_t words) {
  json_ptr list(json_array());
  for (size_t n = 0; list && words(n) != NULL; n++) {
    if (json_array_append_new(list.get(), json_string(words(n))) != 0) return NULL;
  }
  return list.release();
}

/* Whether the argument is taken on set and given on get: a row of the dispatch says it by its
 * handlers, a row of keys by the object's handlers and get_from. */
void tavid_schema_access(const cmd_json_arg_t* arg, const tavid_schema_scope_t& scope, bool* taken, bool* given) {
  bool keys = arg->set == NULL && arg->get == NULL;
  *taken = keys || arg->set != NULL;
  *given = keys ? scope.get_from == NULL || arg >= scope.get_from : arg->get != NULL;
}

json_t* tavid_schema_arg(const cmd_json_arg_t* arg, const tavid_schema_scope_t& scope) {
  json_ptr out(json_object());
  if (!out || !tavid_schema_put(out.get(), "name", json_string(arg->name))) return NULL;
  if (arg->words != NULL && !tavid_schema_put(out.get(), "words", tavid_schema_words(arg->words))) return NULL;
  if (arg->args != NULL && !tavid_schema_put(out.get(), "args", tavid_schema_args(arg->args, scope))) return NULL;
  if (arg->items != NULL &&
      !tavid_schema_put(out.get(), "items", json_pack("{s:o}", "args", tavid_schema_args(arg->items, scope))))
    return NULL;
  bool taken = false;
  bool given = false;
  tavid_schema_access(arg, scope, &taken, &given);
  if (scope.takes && arg->mandatory_for_set && !tavid_schema_put(out.get(), "mandatory", json_true())) return NULL;
  if (scope.gives && !given && !tavid_schema_put(out.get(), "get", json_false())) return NULL;
  if (scope.takes && !taken && !tavid_schema_put(out.get(), "set", json_false())) return NULL;
  return out.release();
}

json_t* tavid_schema_args(const cmd_json_arg_t* args, const tavid_schema_scope_t& scope) {
  json_ptr list(json_array());
  for (const cmd_json_arg_t* arg = args; list && arg != NULL && arg->name != NULL; arg++) {
    if (json_array_append_new(list.get(), tavid_schema_arg(arg, scope)) != 0) return NULL;
  }
  return list.release();
}
// NOLINTEND(misc-no-recursion)

json_t* tavid_schema_actions(const cmd_json_object_t& object) {
  json_ptr actions(json_array());
  if (!actions) return NULL;
  if (object.get != NULL && json_array_append_new(actions.get(), json_string("get")) != 0) return NULL;
  if (object.set != NULL && json_array_append_new(actions.get(), json_string("set")) != 0) return NULL;
  if (object.execute != NULL && json_array_append_new(actions.get(), json_string("execute")) != 0) return NULL;
  return actions.release();
}

json_t* tavid_schema_select(const tavid_schema_link_t& link) {
  json_ptr keys(json_array());
  for (const cmd_json_arg_t* tag : link.select) {
    if (keys && tag != NULL && json_array_append_new(keys.get(), json_string(tag->name)) != 0) return NULL;
  }
  return keys.release();
}

json_t* tavid_schema_object(const cmd_json_object_t& object, const tavid_schema_link_t& link) {
  json_ptr out(json_object());
  if (!out || !tavid_schema_put(out.get(), "name", json_string(object.name))) return NULL;
  if (object.id != NULL && !tavid_schema_put(out.get(), "id", json_string(object.id))) return NULL;
  if (!tavid_schema_put(out.get(), "actions", tavid_schema_actions(object))) return NULL;
  if (link.list && !tavid_schema_put(out.get(), "list", json_true())) return NULL;
  if (link.select[0] != NULL && !tavid_schema_put(out.get(), "select", tavid_schema_select(link))) return NULL;
  tavid_schema_scope_t scope = {object.set != NULL || object.execute != NULL, object.get != NULL, link.get_from};
  if (!tavid_schema_put(out.get(), "args", tavid_schema_args(link.args, scope))) return NULL;
  return out.release();
}

}  // namespace

json_t* tavid_schema_describe(void) {
  json_ptr objects(json_array());
  if (!objects) return NULL;
  for (const cmd_json_object_t& object : cmd_json_objects) {
    const tavid_schema_link_t* link = tavid_schema_link(object);
    if (link == NULL) {
      fprintf(stderr, "tavid_schema: the object \"%s\" has no description\n", object.name);
      return NULL;
    }
    if (json_array_append_new(objects.get(), tavid_schema_object(object, *link)) != 0) return NULL;
  }
  return json_pack("{s:o}", "objects", objects.release());
}
