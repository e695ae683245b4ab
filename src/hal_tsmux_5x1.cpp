#include "hal_tsmux_5x1.h"

#include "dbg.h"

static const hal_ts_mirror_t hal_tsmux_5x1_mirror = {"hal_tsmux_5x1_sync", "H", "I"};

static const hal_poll_ops_t hal_tsmux_5x1_poll_ops = {
    "hal_tsmux_5x1",
    hal_poll_changed<hal_tsmux_5x1_t, hal_tsmux_5x1_changed>,
    hal_poll_step<hal_tsmux_5x1_t, hal_tsmux_5x1_sync>,
    NULL,
    offsetof(hal_tsmux_5x1_t, sync_required),
    offsetof(hal_tsmux_5x1_t, apply_required)};

hal_tsmux_5x1_t* new_hal_tsmux_5x1(hal_tsmux_tsin_t tsin_0, hal_tsmux_tsin_t tsin_1, hal_tsmux_tsin_t tsin_2,
                                   hal_tsmux_tsin_t tsin_3, hal_tsmux_tsin_t tsin_4) {
  hal_tsmux_5x1_t* mux = hal_ts_new_producer<hal_tsmux_5x1_t>(HAL_TSMUX_5X1, delete_hal_tsmux_5x1, __func__);
  if (mux == NULL) return NULL;
  const hal_tsmux_tsin_t inputs[HAL_TSMUX_5X1_INPUTS] = {tsin_0, tsin_1, tsin_2, tsin_3, tsin_4};
  for (int i = 0; i < HAL_TSMUX_5X1_INPUTS; i++) mux->tsin[i] = inputs[i];
  hal_poll_register(HAL_TSMUX_5X1, &hal_tsmux_5x1_poll_ops);
  return mux;
}

void delete_hal_tsmux_5x1(hal_object_t* object) {
  hal_tsmux_5x1_t* mux = reinterpret_cast<hal_tsmux_5x1_t*>(object);
  hal_ts_delete(mux->tsout);
  if (mux->master_tsin != NULL) mux->master_tsin->owner = NULL;
  delete_hal_object(object);
}

hal_err_t hal_tsmux_5x1_set_enabled(hal_tsmux_5x1_t* mux, uint8_t port, uint8_t enabled) {
  if (port >= HAL_TSMUX_5X1_PORTS) return mux->hal_object.err = HAL_SETTING_OOB;
  return hal_set_value<uint8_t>(&mux->hal_object, mux->set.enabled, &mux->settings.enabled[port], enabled,
                                port);
}

hal_err_t hal_tsmux_5x1_get_enabled(hal_tsmux_5x1_t* mux, uint8_t port, uint8_t* enabled) {
  if (port >= HAL_TSMUX_5X1_PORTS) return mux->hal_object.err = HAL_SETTING_OOB;
  return hal_get_value<uint8_t>(&mux->hal_object, mux->get.enabled, &mux->settings.enabled[port], enabled,
                                port);
}

static hal_err_t hal_tsmux_5x1_add_pid(hal_tsmux_5x1_t* mux, uint8_t port, uint16_t pid) {
  return hal_pass(&mux->hal_object, mux->add.pidfilter_pid, port, pid);
}

/* Block filters list the stuffing PID first; a refusal of that one alone does not fail the
 * filter. */
static hal_err_t hal_tsmux_5x1_add_pids(hal_tsmux_5x1_t* mux, uint8_t port, hal_pidfilter_mode_t mode) {
  if (mode == HAL_PIDFILTER_BLOCK_NONE || mode == HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS) {
    hal_tsmux_5x1_add_pid(mux, port, HAL_TSMUX_5X1_STUFFING_PID);
  }
  if (mode == HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS) {
    for (uint16_t pid : PSI_PIDS) {
      if (hal_tsmux_5x1_add_pid(mux, port, pid) != HAL_OK) return mux->hal_object.err;
    }
  } else if (mode == HAL_PIDFILTER_PASS_STUFFING) {
    return hal_tsmux_5x1_add_pid(mux, port, HAL_TSMUX_5X1_STUFFING_PID);
  }
  return HAL_OK;
}

hal_err_t hal_tsmux_5x1_pidfilter_init(hal_tsmux_5x1_t* mux, uint8_t port, hal_pidfilter_mode_t mode) {
  if (port >= HAL_TSMUX_5X1_PORTS) return mux->hal_object.err = HAL_SETTING_OOB;
  if (hal_pass(&mux->hal_object, mux->init.pidfilter, port, mode) != HAL_OK) return mux->hal_object.err;
  if (hal_tsmux_5x1_add_pids(mux, port, mode) != HAL_OK) return mux->hal_object.err;
  return mux->hal_object.err = HAL_OK;
}

/* Every input is looked at, so that each producer's change is seen before it takes it in. */
uint8_t hal_tsmux_5x1_changed(hal_tsmux_5x1_t* mux) {
  if (hal_ts_changed(mux->tsout, 1)) mux->sync_required = 1;
  for (const hal_tsmux_tsin_t& input : mux->tsin) {
    if (input.ts != NULL && hal_ts_changed(input.ts, 0)) mux->sync_required = 1;
  }
  return mux->sync_required;
}

/* Offers in tsout every service of every input, and only those. */
static void hal_tsmux_5x1_sync_tsout(hal_tsmux_5x1_t* mux) {
  hal_ts_t* sources[HAL_TSMUX_5X1_INPUTS];
  for (int i = 0; i < HAL_TSMUX_5X1_INPUTS; i++) sources[i] = mux->tsin[i].ts;
  hal_ts_mirror_remove_stale(mux->tsout, sources, HAL_TSMUX_5X1_INPUTS, &hal_tsmux_5x1_mirror);
  for (hal_ts_t* source : sources) {
    if (source != NULL) hal_ts_mirror_services(mux->tsout, source, &hal_tsmux_5x1_mirror);
  }
}

static void hal_tsmux_5x1_release_master(hal_tsmux_5x1_t* mux) {
  if (mux->master_tsin == NULL) return;
  DBG_MSG("Release MASTER TSIN");
  mux->master_tsin->owner = NULL;
  mux->master_tsin = NULL;
}

/* The master's module describes the whole merged stream: it gets tsout's identity and all of
 * tsout's services, and its filter passes everything. */
static void hal_tsmux_5x1_take_master(hal_tsmux_5x1_t* mux, const hal_tsmux_tsin_t* input) {
  DBG_MSG("Enable TSIN (MASTER)");
  mux->master_tsin = input->ts;
  input->ts->owner = mux;
  mux->hal_object.err = hal_ts_mirror_identity(input->ts, mux->tsout);
  DBG_MSG("Update PSI");
  hal_ts_sync_psi(input->ts, mux->tsout);
  DBG_MSG("Update PID filter (PASS ALL PIDs)");
  hal_tsmux_5x1_pidfilter_init(mux, input->ts_index, HAL_PIDFILTER_BLOCK_NONE);
}

/* An input already taken as master, here or by another multiplexer on the same inputs, keeps
 * its PSI out of this one. Returns 1 when the input carries an enabled service. */
static uint8_t hal_tsmux_5x1_sync_input(hal_tsmux_5x1_t* mux, const hal_tsmux_tsin_t* input) {
  uint8_t enabled = hal_ts_mirror_enabled(input->ts, mux->tsout);
  if (!enabled) {
    DBG_MSG("Disable TSIN");
  } else if (mux->master_tsin != NULL || input->ts->owner != NULL) {
    DBG_MSG("Enable TSIN");
    DBG_MSG("PID filter (BLOCK PSI PIDs)");
    hal_tsmux_5x1_pidfilter_init(mux, input->ts_index, HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS);
  } else {
    hal_tsmux_5x1_take_master(mux, input);
  }
  hal_tsmux_5x1_set_enabled(mux, input->ts_index, enabled);
  return enabled;
}

/* Returns how many inputs carry an enabled service. */
static int hal_tsmux_5x1_sync_inputs(hal_tsmux_5x1_t* mux) {
  int enabled_inputs = 0;
  for (int i = 0; i < HAL_TSMUX_5X1_INPUTS; i++) {
    if (mux->tsin[i].ts == NULL) continue;
    DBG_MSG("<SYNC_TSIN_%d>", i);
    enabled_inputs += hal_tsmux_5x1_sync_input(mux, &mux->tsin[i]);
    DBG_MSG("</SYNC_TSIN_%d>", i);
  }
  return enabled_inputs;
}

/* The output must always carry a stream, if only stuffing. */
static void hal_tsmux_5x1_pass_stuffing(hal_tsmux_5x1_t* mux) {
  DBG_MSG("Set PID filter pass stuffing PIDs HDMI IN 1 to keep modulator happy");
  hal_tsmux_5x1_pidfilter_init(mux, mux->tsin[0].ts_index, HAL_PIDFILTER_PASS_STUFFING);
  hal_tsmux_5x1_set_enabled(mux, mux->tsin[0].ts_index, 1);
}

/* The chip's answers stay in err only; the step always runs to its end. The master is chosen
 * again from scratch each time. */
hal_err_t hal_tsmux_5x1_sync(hal_tsmux_5x1_t* mux) {
  DBG_MSG("<SYNC> hal_tsmux_5x1");
  DBG_MSG("<SYNC_TSOUT>");
  hal_tsmux_5x1_sync_tsout(mux);
  DBG_MSG("</SYNC_TSOUT>");
  DBG_MSG("<SYNC_TSIN>");
  hal_tsmux_5x1_release_master(mux);
  if (hal_tsmux_5x1_sync_inputs(mux) == 0) hal_tsmux_5x1_pass_stuffing(mux);
  DBG_MSG("</SYNC_TSIN>");
  DBG_MSG("</SYNC> hal_tsmux_5x1");
  mux->sync_required = 0;
  return mux->hal_object.err;
}
