#include "hal_output_ip.h"

#include "dbg.h"

static const hal_ts_mirror_t hal_output_ip_mirror = {"hal_output_ip_sync", "D", "E", ""};

static const hal_poll_ops_t hal_output_ip_poll_ops = {
    "hal_output_ip",
    hal_poll_changed<hal_output_ip_t, hal_output_ip_changed>,
    hal_poll_step<hal_output_ip_t, hal_output_ip_sync>,
    hal_poll_step<hal_output_ip_t, hal_output_ip_apply>,
    offsetof(hal_output_ip_t, sync_required),
    offsetof(hal_output_ip_t, apply_required)};

hal_output_ip_t* new_hal_output_ip(hal_ts_t* tsin) {
  hal_output_ip_t* out = hal_ts_new_producer<hal_output_ip_t>(HAL_OUTPUT_IP, delete_hal_output_ip, __func__);
  if (out == NULL) return NULL;
  out->tsin = tsin;
  hal_poll_register(HAL_OUTPUT_IP, &hal_output_ip_poll_ops);
  return out;
}

void delete_hal_output_ip(hal_object_t* object) {
  hal_ts_delete(reinterpret_cast<hal_output_ip_t*>(object)->tsout);
  delete_hal_object(object);
}

hal_err_t hal_output_ip_set_dst_addr(hal_output_ip_t* out, const char* s_dst_addr) {
  return hal_set_text(&out->hal_object, out->set.s_dst_addr, out->settings.s_dst_addr,
                      HAL_OUTPUT_IP_ADDR_SIZE, s_dst_addr);
}

hal_err_t hal_output_ip_set_dst_port(hal_output_ip_t* out, const char* s_dst_port) {
  return hal_set_text(&out->hal_object, out->set.s_dst_port, out->settings.s_dst_port,
                      HAL_OUTPUT_IP_PORT_SIZE, s_dst_port);
}

hal_err_t hal_output_ip_get_dst_addr(hal_output_ip_t* out, char* s_dst_addr, size_t size) {
  return hal_get_text(&out->hal_object, out->get.s_dst_addr, out->settings.s_dst_addr, s_dst_addr, size,
                      size);
}

hal_err_t hal_output_ip_get_dst_port(hal_output_ip_t* out, char* s_dst_port, size_t size) {
  return hal_get_text(&out->hal_object, out->get.s_dst_port, out->settings.s_dst_port, s_dst_port, size,
                      size);
}

hal_err_t hal_output_ip_get_bitrate(hal_output_ip_t* out, uint32_t* bitrate_kbps) {
  return hal_pass(&out->hal_object, out->get.bitrate_kbps, bitrate_kbps);
}

uint8_t hal_output_ip_settings_changed(hal_output_ip_t* out, uint8_t update_crc) {
  return hal_settings_changed(&out->settings, sizeof(out->settings), &out->settings_crc, update_crc);
}

/* A change of tsout (a service switched, a new TS identity) owes both steps: the sync passes it
 * back to tsin, the apply lets the streaming follow. */
uint8_t hal_output_ip_changed(hal_output_ip_t* out) {
  if (hal_ts_changed(out->tsout, 1)) out->sync_required = out->apply_required = 1;
  if (hal_output_ip_settings_changed(out, 1)) out->apply_required = 1;
  if (hal_ts_changed(out->tsin, 0)) out->sync_required = 1;
  return out->sync_required | out->apply_required;
}

/* Offers the services of tsin in tsout, then hands the TS identity and the services' switches
 * set on tsout back to whatever produces tsin. */
hal_err_t hal_output_ip_sync(hal_output_ip_t* out) {
  DBG_MSG("<SYNC> hal_output_ip");
  hal_ts_mirror_output(out->tsin, out->tsout, &hal_output_ip_mirror);
  DBG_MSG("</SYNC> hal_output_ip");
  out->sync_required = 0;
  return out->hal_object.err = HAL_OK;
}

/* A failed start is not retried until the settings or the services change again. */
hal_err_t hal_output_ip_apply(hal_output_ip_t* out) {
  DBG_MSG("<APPLY> hal_output_ip");
  DBG_MSG("<APPLY_SETTINGS>");
  if (out->apply != NULL) out->apply(out);
  DBG_MSG("</APPLY_SETTINGS>");
  DBG_MSG("</APPLY>");
  out->apply_required = 0;
  return out->hal_object.err = HAL_OK;
}
