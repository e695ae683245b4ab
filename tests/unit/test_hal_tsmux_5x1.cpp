#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "dbg.h"
#include "hal.h"
#include "hal_output_ip.h"
#include "hal_test_support.h"
#include "hal_ts.h"
#include "hal_tsmux_5x1.h"

namespace {

using namespace hal_test;

std::string label(void* user) { return user != nullptr ? static_cast<const char*>(user) : "-"; }

std::string hex(unsigned value) {
  char text[16];
  snprintf(text, sizeof(text), "0x%04x", value);
  return text;
}

hal_err_t fake_pidfilter(void* user, uint8_t port, hal_pidfilter_mode_t mode) {
  return record(label(user) + " init " + std::to_string(port) + " mode " + std::to_string(mode));
}
hal_err_t fake_add_pid(void* user, uint8_t port, uint16_t pid) {
  return record(label(user) + " add " + std::to_string(port) + " " + hex(pid));
}
hal_err_t fake_set_enabled(void* user, uint8_t port, uint8_t enabled) {
  return record(label(user) + " enable " + std::to_string(port) + " " + std::to_string(enabled));
}
/* The chip reports every port switched on. */
hal_err_t fake_get_enabled(void* user, uint8_t port, uint8_t* enabled) {
  hal_err_t err = record(label(user) + " get " + std::to_string(port));
  if (err == HAL_OK) *enabled = 1;
  return err;
}
hal_err_t fake_ip_apply(hal_output_ip_t*) { return record("ip apply"); }

/* The calls one filter set-up hands the chip. */
std::vector<std::string> filter(const std::string& chip, int port, hal_pidfilter_mode_t mode) {
  std::string at = chip + " init " + std::to_string(port) + " mode " + std::to_string(mode);
  std::string add = chip + " add " + std::to_string(port) + " ";
  std::vector<std::string> expected = {at};
  if (mode != HAL_PIDFILTER_DISABLED && mode != HAL_PIDFILTER_PASS_NONE) expected.push_back(add + "0x1fff");
  if (mode == HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS) {
    for (const char* pid : {"0x0000", "0x0001", "0x0010", "0x0011", "0x0012", "0x0013", "0x0014", "0x1ffb"}) {
      expected.push_back(add + pid);
    }
  }
  return expected;
}

std::string enable(const std::string& chip, int port, int enabled) {
  return chip + " enable " + std::to_string(port) + " " + std::to_string(enabled);
}

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
std::vector<std::string> operator+(std::vector<std::string> a, const std::string& b) {
  a.push_back(b);
  return a;
}

std::string service_line(const char* what, int tag, const std::string& name, int enabled) {
  return msg(std::string(what) + " service (tag: " + std::to_string(tag) + ", name: \"" + name +
             "\", enabled: " + std::to_string(enabled) + ")");
}

/* Type 1, LCN the SID and PMT PID 0x100 + SID; AAC streams at 128 kbit/s. */
hal_service_t* add_aac_service(hal_ts_t* ts, uint16_t sid, const std::string& name,
                               const std::vector<uint16_t>& pids) {
  hal_service_t* service = add_service(ts, sid, name, streams_of(pids, HAL_AAC, 128));
  hal_service_set_type(service, 1);
  hal_service_set_lcn(service, sid);
  hal_service_set_pmt_pid(service, static_cast<uint16_t>(0x100 + sid));
  return service;
}

/* The board's routing: inputs 0 to 3 on ports 4, 2, 0, 1; the fifth input, on port 3, is not
 * connected. */
constexpr uint8_t ports[HAL_TSMUX_5X1_INPUTS] = {4, 2, 0, 1, 3};

hal_tsmux_5x1_t* new_mux(hal_ts_t* const* ins, const char* chip) {
  hal_tsmux_5x1_t* mux = new_hal_tsmux_5x1({ins[0], ports[0]}, {ins[1], ports[1]}, {ins[2], ports[2]},
                                           {ins[3], ports[3]}, {nullptr, ports[4]});
  if (mux == nullptr) return nullptr;
  mux->hal_object.user = const_cast<char*>(chip);
  mux->init.pidfilter = fake_pidfilter;
  mux->add.pidfilter_pid = fake_add_pid;
  mux->set.enabled = fake_set_enabled;
  mux->get.enabled = fake_get_enabled;
  return mux;
}

class HalTsmux5x1 : public HalTest {
 protected:
  void SetUp() override {
    HalTest::SetUp();
    failure = HAL_TSMUX_ERR;
    for (hal_ts_t*& in : ins) in = new_hal_ts();
    mux = new_mux(ins, "A");
    ASSERT_NE(mux, nullptr);
  }
  void TearDown() override {
    if (mux != nullptr) delete_object(mux);
    for (hal_ts_t* in : ins) delete_object(in);
    HalTest::TearDown();
  }
  /* One service per input, tags 0 to 3 in input order. */
  void add_services() {
    for (int i = 0; i < 4; i++)
      add_aac_service(ins[i], static_cast<uint16_t>(i + 1), "In" + std::to_string(i), {});
  }
  /* Runs a sync step; returns its log lines, and its warnings in `warnings`. */
  std::string sync(hal_tsmux_5x1_t* which = nullptr, std::string* warnings = nullptr) {
    printed_t printed = printed_by([&] { hal_tsmux_5x1_sync(which != nullptr ? which : mux); });
    if (warnings != nullptr) *warnings = without_lines(printed.err);
    return printed.out;
  }
  /* Switches the service that input `i` offers on a multiplexer's tsout. */
  void switch_input(hal_tsmux_5x1_t* which, int i, uint8_t enabled) {
    hal_service_t* source = service_at(ins[i], 0);
    hal_ts_find_service_by_tag(which->tsout, source->tag)->enabled = enabled;
  }
  static uint8_t changed(hal_tsmux_5x1_t* which) {
    return quietly([which] { return hal_tsmux_5x1_changed(which); });
  }

  hal_ts_t* ins[4] = {};
  hal_tsmux_5x1_t* mux = nullptr;
};

TEST_F(HalTsmux5x1, PsiPidsInTableOrder) {
  EXPECT_EQ(std::vector<uint16_t>(std::begin(PSI_PIDS), std::end(PSI_PIDS)),
            (std::vector<uint16_t>{0x0000, 0x0001, 0x0010, 0x0011, 0x0012, 0x0013, 0x0014, 0x1FFB}));
  static_assert(HAL_TSMUX_5X1_STUFFING_PID == 0x1FFF, "stuffing goes out on PID 0x1FFF");
}

TEST_F(HalTsmux5x1, ConstructorKeepsTheInputsInOrderAndCreatesTsout) {
  hal_tsmux_5x1_t* bare = new_hal_tsmux_5x1({ins[0], 4}, {ins[1], 2}, {ins[2], 0}, {ins[3], 1}, {nullptr, 3});
  ASSERT_NE(bare, nullptr);
  EXPECT_EQ(bare->hal_object.type, HAL_TSMUX_5X1);
  EXPECT_EQ(bare->hal_object.delete_, delete_hal_tsmux_5x1);
  EXPECT_EQ(bare->hal_object.user, nullptr);
  EXPECT_EQ(bare->hal_object.strerror, nullptr);
  EXPECT_EQ(bare->hal_object.node.owner, nullptr);
  for (int i = 0; i < 4; i++) {
    EXPECT_EQ(bare->tsin[i].ts, ins[i]);
    EXPECT_EQ(bare->tsin[i].ts_index, ports[i]);
  }
  EXPECT_EQ(bare->tsin[4].ts, nullptr);
  EXPECT_EQ(bare->tsin[4].ts_index, 3);
  ASSERT_NE(bare->tsout, nullptr);
  EXPECT_EQ(mux->tsout->tag, 4u);
  EXPECT_EQ(bare->tsout->tag, 5u);
  EXPECT_EQ(bare->master_tsin, nullptr);
  EXPECT_EQ(bare->init.pidfilter, nullptr);
  EXPECT_EQ(bare->add.pidfilter_pid, nullptr);
  EXPECT_EQ(bare->set.enabled, nullptr);
  EXPECT_EQ(bare->get.enabled, nullptr);
  for (uint8_t flag : bare->settings.enabled) EXPECT_EQ(flag, 0);
  EXPECT_EQ(hal.node_count, 0u);
  delete_object(bare);
}

TEST_F(HalTsmux5x1, DeleteGivesUpTheMasterAndLeavesTheInputsAlone) {
  add_services();
  sync();
  switch_input(mux, 2, 1);
  sync();
  ASSERT_EQ(mux->master_tsin, ins[2]);
  EXPECT_EQ(ins[2]->owner, mux);
  lnklist_push_node(&hal, &mux->hal_object.node);
  delete_object(mux);
  mux = nullptr;
  EXPECT_EQ(hal.node_count, 0u);
  EXPECT_EQ(ins[2]->owner, nullptr);
  EXPECT_EQ(ins[2]->service_list.node_count, 1u);
}

TEST_F(HalTsmux5x1, EnabledPortFiveIsOutOfBounds) {
  EXPECT_EQ(hal_tsmux_5x1_set_enabled(mux, 5, 1), HAL_SETTING_OOB);
  EXPECT_EQ(mux->hal_object.err, HAL_SETTING_OOB);
  EXPECT_EQ(hal_tsmux_5x1_set_enabled(mux, 255, 1), HAL_SETTING_OOB);
  uint8_t enabled = 7;
  EXPECT_EQ(hal_tsmux_5x1_get_enabled(mux, 5, &enabled), HAL_SETTING_OOB);
  EXPECT_EQ(enabled, 7);
  EXPECT_EQ(hal_tsmux_5x1_pidfilter_init(mux, 5, HAL_PIDFILTER_BLOCK_NONE), HAL_SETTING_OOB);
  EXPECT_TRUE(calls.empty());
  for (uint8_t flag : mux->settings.enabled) EXPECT_EQ(flag, 0);
}

TEST_F(HalTsmux5x1, SetEnabledGoesToTheChipFirstAndIsStoredByPort) {
  EXPECT_EQ(hal_tsmux_5x1_set_enabled(mux, 4, 1), HAL_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"A enable 4 1"}));
  EXPECT_EQ(mux->settings.enabled[4], 1);
  failing = "A enable 4 0";
  EXPECT_EQ(hal_tsmux_5x1_set_enabled(mux, 4, 0), HAL_TSMUX_ERR);
  EXPECT_EQ(mux->hal_object.err, HAL_TSMUX_ERR);
  EXPECT_EQ(mux->settings.enabled[4], 1);
}

TEST_F(HalTsmux5x1, SetEnabledWithoutAChipLivesInMemory) {
  mux->set.enabled = nullptr;
  EXPECT_EQ(hal_tsmux_5x1_set_enabled(mux, 0, 1), HAL_OK);
  EXPECT_EQ(mux->settings.enabled[0], 1);
  EXPECT_TRUE(calls.empty());
}

TEST_F(HalTsmux5x1, GetEnabledLetsTheChipRefreshThePort) {
  uint8_t enabled = 0;
  EXPECT_EQ(hal_tsmux_5x1_get_enabled(mux, 2, &enabled), HAL_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"A get 2"}));
  EXPECT_EQ(enabled, 1);
  EXPECT_EQ(mux->settings.enabled[2], 1);
  failing = "A get 3";
  enabled = 9;
  EXPECT_EQ(hal_tsmux_5x1_get_enabled(mux, 3, &enabled), HAL_TSMUX_ERR);
  EXPECT_EQ(enabled, 9);
}

TEST_F(HalTsmux5x1, PassAllFilterGetsOnlyTheStuffingPid) {
  EXPECT_EQ(hal_tsmux_5x1_pidfilter_init(mux, 2, HAL_PIDFILTER_BLOCK_NONE), HAL_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"A init 2 mode 0", "A add 2 0x1fff"}));
}

TEST_F(HalTsmux5x1, BlockPsiFilterGetsStuffingThenThePsiPids) {
  EXPECT_EQ(hal_tsmux_5x1_pidfilter_init(mux, 1, HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS), HAL_OK);
  EXPECT_EQ(calls,
            (std::vector<std::string>{"A init 1 mode 1", "A add 1 0x1fff", "A add 1 0x0000", "A add 1 0x0001",
                                      "A add 1 0x0010", "A add 1 0x0011", "A add 1 0x0012", "A add 1 0x0013",
                                      "A add 1 0x0014", "A add 1 0x1ffb"}));
}

TEST_F(HalTsmux5x1, StuffingFilterGetsTheStuffingPid) {
  EXPECT_EQ(hal_tsmux_5x1_pidfilter_init(mux, 4, HAL_PIDFILTER_PASS_STUFFING), HAL_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"A init 4 mode 4", "A add 4 0x1fff"}));
}

TEST_F(HalTsmux5x1, DisabledAndPassNoneFiltersGetNoPid) {
  EXPECT_EQ(hal_tsmux_5x1_pidfilter_init(mux, 0, HAL_PIDFILTER_DISABLED), HAL_OK);
  EXPECT_EQ(hal_tsmux_5x1_pidfilter_init(mux, 3, HAL_PIDFILTER_PASS_NONE), HAL_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"A init 0 mode 2", "A init 3 mode 3"}));
}

TEST_F(HalTsmux5x1, ARefusedStuffingPidIsIgnoredByTheBlockFilters) {
  failing = "A add 2 0x1fff";
  EXPECT_EQ(hal_tsmux_5x1_pidfilter_init(mux, 2, HAL_PIDFILTER_BLOCK_NONE), HAL_OK);
  EXPECT_EQ(mux->hal_object.err, HAL_OK);
  calls.clear();
  EXPECT_EQ(hal_tsmux_5x1_pidfilter_init(mux, 2, HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS), HAL_OK);
  EXPECT_EQ(calls, filter("A", 2, HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS));
}

TEST_F(HalTsmux5x1, ARefusedPsiPidEndsTheList) {
  failing = "A add 1 0x0010";
  EXPECT_EQ(hal_tsmux_5x1_pidfilter_init(mux, 1, HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS), HAL_TSMUX_ERR);
  EXPECT_EQ(mux->hal_object.err, HAL_TSMUX_ERR);
  EXPECT_EQ(calls, (std::vector<std::string>{"A init 1 mode 1", "A add 1 0x1fff", "A add 1 0x0000",
                                             "A add 1 0x0001", "A add 1 0x0010"}));
}

TEST_F(HalTsmux5x1, ARefusedStuffingPidFailsTheStuffingFilter) {
  failing = "A add 4 0x1fff";
  EXPECT_EQ(hal_tsmux_5x1_pidfilter_init(mux, 4, HAL_PIDFILTER_PASS_STUFFING), HAL_TSMUX_ERR);
  EXPECT_EQ(mux->hal_object.err, HAL_TSMUX_ERR);
}

TEST_F(HalTsmux5x1, ARefusedResetAddsNoPid) {
  failing = "A init 1 mode 1";
  EXPECT_EQ(hal_tsmux_5x1_pidfilter_init(mux, 1, HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS), HAL_TSMUX_ERR);
  EXPECT_EQ(calls, (std::vector<std::string>{"A init 1 mode 1"}));
}

TEST_F(HalTsmux5x1, FilterOperationsAreEachOptional) {
  mux->init.pidfilter = nullptr;
  EXPECT_EQ(hal_tsmux_5x1_pidfilter_init(mux, 0, HAL_PIDFILTER_PASS_STUFFING), HAL_OK);
  EXPECT_EQ(calls, (std::vector<std::string>{"A add 0 0x1fff"}));
  mux->add.pidfilter_pid = nullptr;
  mux->hal_object.err = HAL_ERR;
  EXPECT_EQ(hal_tsmux_5x1_pidfilter_init(mux, 0, HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS), HAL_OK);
  EXPECT_EQ(mux->hal_object.err, HAL_OK);
  EXPECT_EQ(calls.size(), 1u);
}

TEST_F(HalTsmux5x1, ANewMultiplexerOwesASync) {
  EXPECT_EQ(changed(mux), 1);
  EXPECT_EQ(mux->sync_required, 1);
  EXPECT_EQ(mux->apply_required, 0);
  EXPECT_EQ(ts_changed(mux->tsout), 0);
}

TEST_F(HalTsmux5x1, AnInputChangeOwesASyncAndIsLeftToItsProducer) {
  for (hal_ts_t* in : ins) take_in(in);
  take_in(mux->tsout);
  EXPECT_EQ(changed(mux), 0);
  add_aac_service(ins[3], 9, "Late", {});
  EXPECT_EQ(changed(mux), 1);
  EXPECT_EQ(mux->sync_required, 1);
  EXPECT_EQ(mux->apply_required, 0);
  EXPECT_EQ(ts_changed(ins[3]), 1);
}

TEST_F(HalTsmux5x1, EveryInputIsTestedAndTheTestNeverClearsTheFlag) {
  take_in(mux->tsout);
  testing::internal::CaptureStderr();
  hal_tsmux_5x1_changed(mux);
  std::string warnings = testing::internal::GetCapturedStderr();
  /* Four new inputs, each reported by its own test. */
  const std::vector<std::string> traces = warnings_in(warnings);
  EXPECT_EQ(std::count(traces.begin(), traces.end(), "hal_ts_changed: ts_changed !!"), 4);
  for (hal_ts_t* in : ins) take_in(in);
  EXPECT_EQ(changed(mux), 1);
}

TEST_F(HalTsmux5x1, NoEnabledServiceSwitchesEveryPortOffThenPassesStuffingOnInputZero) {
  add_services();
  verbose = 1;
  std::string expected = msg("<SYNC> hal_tsmux_5x1") + msg("<SYNC_TSOUT>");
  for (int i = 0; i < 4; i++) expected += service_line("Add", i, "In" + std::to_string(i), 0);
  expected += msg("</SYNC_TSOUT>") + msg("<SYNC_TSIN>");
  for (int i = 0; i < 4; i++) {
    expected += msg("<SYNC_TSIN_" + std::to_string(i) + ">") +
                service_line("Update", i, "In" + std::to_string(i), 0) + msg("Disable TSIN") +
                msg("</SYNC_TSIN_" + std::to_string(i) + ">");
  }
  expected += msg("Set PID filter pass stuffing PIDs HDMI IN 1 to keep modulator happy") +
              msg("</SYNC_TSIN>") + msg("</SYNC> hal_tsmux_5x1");
  std::string warnings;
  mux->sync_required = 1;
  EXPECT_EQ(sync(nullptr, &warnings), expected);
  EXPECT_EQ(warnings, "");
  EXPECT_EQ(calls, (std::vector<std::string>{enable("A", 4, 0), enable("A", 2, 0), enable("A", 0, 0),
                                             enable("A", 1, 0)} +
                    filter("A", 4, HAL_PIDFILTER_PASS_STUFFING) + enable("A", 4, 1)));
  EXPECT_EQ(mux->settings.enabled[4], 1);
  EXPECT_EQ(mux->settings.enabled[2], 0);
  EXPECT_EQ(mux->master_tsin, nullptr);
  EXPECT_EQ(mux->sync_required, 0);
  EXPECT_EQ(mux->hal_object.err, HAL_OK);
}

TEST_F(HalTsmux5x1, TheFirstEnabledInputIsMasterAndTheOthersBlockPsi) {
  add_services();
  ins[1]->set.tsid = fake_ts_tsid;
  ins[1]->sync.psi = fake_psi;
  ins[3]->set.tsid = fake_ts_tsid;
  ins[3]->sync.psi = fake_psi;
  set_identity(mux->tsout, {0x4321, 2, 3, 40, "Merged", 6});
  sync();
  switch_input(mux, 1, 1);
  switch_input(mux, 3, 1);
  calls.clear();
  verbose = 1;
  std::string expected = msg("<SYNC> hal_tsmux_5x1") + msg("<SYNC_TSOUT>");
  for (int i = 0; i < 4; i++) expected += service_line("Update", i, "In" + std::to_string(i), i % 2);
  expected +=
      msg("</SYNC_TSOUT>") + msg("<SYNC_TSIN>") + msg("<SYNC_TSIN_0>") + service_line("Update", 0, "In0", 0) +
      msg("Disable TSIN") + msg("</SYNC_TSIN_0>") + msg("<SYNC_TSIN_1>") +
      service_line("Update", 1, "In1", 1) + msg("Enable TSIN (MASTER)") +
      msg("Update TSIN (TSID: 17185, ONID: 2, NID: 3, private_data_spec: 40, network_name: \"Merged\", "
          "network_version: 6)") +
      msg("Update PSI") + msg("Update PID filter (PASS ALL PIDs)") + msg("</SYNC_TSIN_1>") +
      msg("<SYNC_TSIN_2>") + service_line("Update", 2, "In2", 0) + msg("Disable TSIN") +
      msg("</SYNC_TSIN_2>") + msg("<SYNC_TSIN_3>") + service_line("Update", 3, "In3", 1) +
      msg("Enable TSIN") + msg("PID filter (BLOCK PSI PIDs)") + msg("</SYNC_TSIN_3>") + msg("</SYNC_TSIN>") +
      msg("</SYNC> hal_tsmux_5x1");
  EXPECT_EQ(sync(), expected);
  EXPECT_EQ(calls, (std::vector<std::string>{enable("A", 4, 0), "tsid 17185", "psi 1 from 4"} +
                    filter("A", 2, HAL_PIDFILTER_BLOCK_NONE) + enable("A", 2, 1) + enable("A", 0, 0) +
                    filter("A", 1, HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS) + enable("A", 1, 1)));
  EXPECT_EQ(mux->master_tsin, ins[1]);
  EXPECT_EQ(ins[1]->owner, mux);
  EXPECT_EQ(ins[3]->owner, nullptr);
  EXPECT_EQ(memcmp(&ins[1]->settings, &mux->tsout->settings, sizeof(ins[1]->settings)), 0);
  EXPECT_EQ(ins[3]->settings.tsid, 0);
  EXPECT_EQ(service_at(ins[1], 0)->enabled, 1);
  EXPECT_EQ(service_at(ins[0], 0)->enabled, 0);
  EXPECT_EQ((std::vector<uint8_t>(mux->settings.enabled, mux->settings.enabled + 5)),
            (std::vector<uint8_t>{0, 1, 1, 0, 0}));
}

TEST_F(HalTsmux5x1, TheMasterIsChosenAgainOnEverySync) {
  add_services();
  sync();
  switch_input(mux, 1, 1);
  switch_input(mux, 3, 1);
  sync();
  switch_input(mux, 1, 0);
  calls.clear();
  verbose = 1;
  std::string log = sync();
  EXPECT_NE(log.find(msg("<SYNC_TSIN>") + msg("Release MASTER TSIN") + msg("<SYNC_TSIN_0>")),
            std::string::npos);
  const std::vector<std::string> messages = messages_in(log);
  EXPECT_EQ(std::count(messages.begin(), messages.end(), "Enable TSIN (MASTER)"), 1);
  EXPECT_EQ(mux->master_tsin, ins[3]);
  EXPECT_EQ(ins[3]->owner, mux);
  EXPECT_EQ(ins[1]->owner, nullptr);
  EXPECT_EQ(calls, (std::vector<std::string>{enable("A", 4, 0), enable("A", 2, 0), enable("A", 0, 0)} +
                    filter("A", 1, HAL_PIDFILTER_BLOCK_NONE) + enable("A", 1, 1)));
}

TEST_F(HalTsmux5x1, AnInputMasteredElsewhereBlocksItsPsiHere) {
  add_services();
  hal_tsmux_5x1_t* second = new_mux(ins, "B");
  ASSERT_NE(second, nullptr);
  ins[1]->sync.psi = fake_psi;
  sync(mux);
  sync(second);
  switch_input(mux, 1, 1);
  switch_input(second, 1, 1);
  calls.clear();
  sync(mux);
  verbose = 1;
  std::string log = sync(second);
  EXPECT_NE(log.find(msg("<SYNC_TSIN_1>") + service_line("Update", 1, "In1", 1) + msg("Enable TSIN") +
                     msg("PID filter (BLOCK PSI PIDs)") + msg("</SYNC_TSIN_1>")),
            std::string::npos);
  EXPECT_EQ(mux->master_tsin, ins[1]);
  EXPECT_EQ(ins[1]->owner, mux);
  /* The second has no other enabled input: no master, so no PSI of its own. */
  EXPECT_EQ(second->master_tsin, nullptr);
  EXPECT_EQ(calls, (std::vector<std::string>{enable("A", 4, 0), "psi 1 from 4"} +
                    filter("A", 2, HAL_PIDFILTER_BLOCK_NONE) + enable("A", 2, 1) + enable("A", 0, 0) +
                    enable("A", 1, 0) + enable("B", 4, 0) + filter("B", 2, HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS) +
                    enable("B", 2, 1) + enable("B", 0, 0) + enable("B", 1, 0)));
  delete_object(second);
}

TEST_F(HalTsmux5x1, TheSecondMultiplexerTakesItsOwnMasterAmongItsOtherInputs) {
  add_services();
  hal_tsmux_5x1_t* second = new_mux(ins, "B");
  ASSERT_NE(second, nullptr);
  sync(mux);
  sync(second);
  switch_input(mux, 1, 1);
  switch_input(second, 1, 1);
  switch_input(second, 2, 1);
  sync(mux);
  calls.clear();
  sync(second);
  EXPECT_EQ(second->master_tsin, ins[2]);
  EXPECT_EQ(ins[2]->owner, second);
  EXPECT_EQ(ins[1]->owner, mux);
  EXPECT_EQ(calls, (std::vector<std::string>{enable("B", 4, 0)} +
                    filter("B", 2, HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS) + enable("B", 2, 1) +
                    filter("B", 0, HAL_PIDFILTER_BLOCK_NONE) + enable("B", 0, 1) + enable("B", 1, 0)));
  /* Once the first is gone, its master is free for the second. */
  delete_object(mux);
  mux = nullptr;
  sync(second);
  EXPECT_EQ(second->master_tsin, ins[1]);
  EXPECT_EQ(ins[1]->owner, second);
  EXPECT_EQ(ins[2]->owner, nullptr);
  delete_object(second);
}

TEST_F(HalTsmux5x1, AVanishedServiceIsRemovedWithItsWarningAndTsoutCountsAsChanged) {
  add_services();
  hal_service_t* extra = add_aac_service(ins[2], 20, "Gone", {0x300, 0x301});
  hal_service_t* other = add_aac_service(ins[2], 21, "AlsoGone", {});
  sync();
  for (hal_ts_t* in : ins) take_in(in);
  take_in(mux->tsout);
  uint32_t crc = mux->tsout->settings_crc;
  uint32_t extra_tag = extra->tag;
  delete_object(extra);
  delete_object(other);
  verbose = 1;
  std::string warnings;
  std::string log = sync(nullptr, &warnings);
  EXPECT_NE(
      log.find(msg("<SYNC_TSOUT>") + msg("Remove service (tag: 4, name: \"Gone\")") +
               msg("Remove service (tag: 5, name: \"AlsoGone\")") + service_line("Update", 0, "In0", 0)),
      std::string::npos);
  EXPECT_EQ(warnings, wrn("hal_tsmux_5x1_sync", "H") + wrn("hal_tsmux_5x1_sync", "H"));
  EXPECT_EQ(hal_ts_find_service_by_tag(mux->tsout, extra_tag), nullptr);
  EXPECT_EQ(mux->tsout->service_list.node_count, 4u);
  EXPECT_EQ(mux->tsout->settings_crc, crc + 2);
  EXPECT_EQ(changed(mux), 1);
  EXPECT_EQ(mux->sync_required, 1);
  EXPECT_EQ(ts_changed(mux->tsout), 0);
}

TEST_F(HalTsmux5x1, AVanishedStreamIsRemovedWithItsWarning) {
  hal_service_t* source = add_aac_service(ins[0], 1, "In0", {0x100, 0x101, 0x102});
  sync();
  hal_service_t* mirror = hal_ts_find_service_by_tag(mux->tsout, source->tag);
  take_in(mux->tsout);
  uint32_t crc = mirror->settings_crc;
  uint32_t kept = stream_at(source, 0)->tag;
  delete_object(stream_at(source, 1));
  delete_object(stream_at(source, 1));
  std::string warnings;
  sync(nullptr, &warnings);
  EXPECT_EQ(warnings, wrn("hal_tsmux_5x1_sync", "I") + wrn("hal_tsmux_5x1_sync", "I"));
  ASSERT_EQ(mirror->stream_list.node_count, 1u);
  EXPECT_EQ(stream_at(mirror, 0)->tag, kept);
  EXPECT_EQ(mirror->settings_crc, crc + 2);
}

TEST_F(HalTsmux5x1, ANewServiceShowsUpSwitchedOffWithItsInputsTag) {
  sync();
  hal_stream_tag = 10;
  hal_service_t* source = add_aac_service(ins[3], 7, "New", {0x200, 0x201});
  source->enabled = 1;
  hal_service_tag = 30;
  sync();
  ASSERT_EQ(mux->tsout->service_list.node_count, 1u);
  hal_service_t* mirror = service_at(mux->tsout, 0);
  EXPECT_EQ(mirror->tag, source->tag);
  EXPECT_EQ(hal_service_tag, 31u);
  EXPECT_EQ(mirror->enabled, 0);
  EXPECT_EQ(memcmp(&mirror->settings, &source->settings, sizeof(source->settings)), 0);
  ASSERT_EQ(mirror->stream_list.node_count, 2u);
  for (int s = 0; s < 2; s++) {
    hal_stream_t* copy = hal_service_find_stream_by_tag(mirror, stream_at(source, s)->tag);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->settings.pid, stream_at(source, s)->settings.pid);
  }
  /* The switch on tsout is what the input gets back. */
  EXPECT_EQ(source->enabled, 0);
}

TEST_F(HalTsmux5x1, AnUpdateKeepsTheSwitchOfTsout) {
  hal_service_t* source = add_aac_service(ins[0], 1, "In0", {0x100});
  sync();
  switch_input(mux, 0, 1);
  hal_service_set_name(source, "Renamed");
  hal_stream_set_bitrate(stream_at(source, 0), 999);
  sync();
  hal_service_t* mirror = service_at(mux->tsout, 0);
  EXPECT_STREQ(mirror->settings.service_name, "Renamed");
  EXPECT_EQ(stream_at(mirror, 0)->settings.bitrate_kbps, 999);
  EXPECT_EQ(mirror->enabled, 1);
  EXPECT_EQ(source->enabled, 1);
}

TEST_F(HalTsmux5x1, AMultiplexerWithNoInputsRemovesEverythingAndPassesStuffing) {
  hal_tsmux_5x1_t* empty =
      new_hal_tsmux_5x1({nullptr, 4}, {nullptr, 2}, {nullptr, 0}, {nullptr, 1}, {nullptr, 3});
  ASSERT_NE(empty, nullptr);
  empty->hal_object.user = const_cast<char*>("E");
  empty->init.pidfilter = fake_pidfilter;
  empty->add.pidfilter_pid = fake_add_pid;
  empty->set.enabled = fake_set_enabled;
  add_aac_service(empty->tsout, 1, "Orphan", {0x100});
  EXPECT_EQ(changed(empty), 1);
  empty->sync_required = 0;
  /* With tsout taken in there is nothing else to look at. */
  EXPECT_EQ(changed(empty), 0);
  verbose = 1;
  std::string warnings;
  std::string expected = msg("<SYNC> hal_tsmux_5x1") + msg("<SYNC_TSOUT>") +
                         msg("Remove service (tag: 0, name: \"Orphan\")") + msg("</SYNC_TSOUT>") +
                         msg("<SYNC_TSIN>") +
                         msg("Set PID filter pass stuffing PIDs HDMI IN 1 to keep modulator happy") +
                         msg("</SYNC_TSIN>") + msg("</SYNC> hal_tsmux_5x1");
  EXPECT_EQ(sync(empty, &warnings), expected);
  EXPECT_EQ(warnings, wrn("hal_tsmux_5x1_sync", "H"));
  EXPECT_EQ(calls, filter("E", 4, HAL_PIDFILTER_PASS_STUFFING) + enable("E", 4, 1));
  EXPECT_EQ(empty->tsout->service_list.node_count, 0u);
  delete_object(empty);
}

TEST_F(HalTsmux5x1, ChipErrorsDoNotStopTheSyncWhichReturnsTheLastResult) {
  add_services();
  sync();
  switch_input(mux, 0, 1);
  switch_input(mux, 1, 1);
  calls.clear();
  failing = "A init 4 mode 0";
  mux->sync_required = 1;
  sync();
  EXPECT_EQ(calls, (std::vector<std::string>{"A init 4 mode 0", enable("A", 4, 1)} +
                    filter("A", 2, HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS) + enable("A", 2, 1) + enable("A", 0, 0) +
                    enable("A", 1, 0)));
  EXPECT_EQ(mux->hal_object.err, HAL_OK);
  failing = enable("A", 1, 0);
  EXPECT_EQ(hal_tsmux_5x1_sync(mux), HAL_TSMUX_ERR);
  EXPECT_EQ(mux->sync_required, 0);
}

/* ---- the multiplexer in the poll cycle ---- */

/* IP MPTS in small: two inputs into the multiplexer, whose tsout the IP output streams. */
class HalTsmux5x1Poll : public HalTest {
 protected:
  void SetUp() override {
    HalTest::SetUp();
    failure = HAL_TSMUX_ERR;
    for (int i = 1; i >= 0; i--) {
      inputs[i] = add_fake_input(0);
      inputs[i]->tsout->sync.psi = fake_psi;
      add_aac_service(inputs[i]->tsout, static_cast<uint16_t>(i + 1), "In" + std::to_string(i), {0x100});
    }
    hal_ts_t* ins[4] = {inputs[0]->tsout, inputs[1]->tsout, nullptr, nullptr};
    mux = new_mux(ins, "A");
    ASSERT_NE(mux, nullptr);
    lnklist_push_node(&hal, &mux->hal_object.node);
    out = new_hal_output_ip(mux->tsout);
    ASSERT_NE(out, nullptr);
    out->apply = fake_ip_apply;
    lnklist_push_node(&hal, &out->hal_object.node);
    verbose = 1;
    poll();
    calls.clear();
  }

  fake_input_t* inputs[2] = {};
  hal_tsmux_5x1_t* mux = nullptr;
  hal_output_ip_t* out = nullptr;
};

TEST_F(HalTsmux5x1Poll, AnInputServiceChangeSyncsTheMultiplexerThenItsReaderThenApplies) {
  hal_service_set_name(service_at(inputs[0]->tsout, 0), "Renamed");
  std::string log = poll();
  /* Each syncing object rewrites the TS it produces and sees that rewrite in the next nested
   * cycle, so both sync once more before a cycle syncs nothing and the apply steps run. */
  EXPECT_EQ(step_lines(log), (std::vector<std::string>{
                                 "<SYNC_REQUIRED> hal_tsmux_5x1 (0)",
                                 "</SYNC_REQUIRED> hal_tsmux_5x1 (0)",
                                 "<SYNC_REQUIRED> hal_output_ip (0)",
                                 "</SYNC_REQUIRED> hal_output_ip (0)",
                                 "<SYNC_REQUIRED> hal_tsmux_5x1 (0)",
                                 "</SYNC_REQUIRED> hal_tsmux_5x1 (0)",
                                 "<SYNC_REQUIRED> hal_output_ip (0)",
                                 "</SYNC_REQUIRED> hal_output_ip (0)",
                                 "<APPLY_REQUIRED> hal_output_ip (0)",
                                 "</APPLY_REQUIRED> hal_output_ip (0)",
                                 "<APPLY_REQUIRED> hal_input_hdmi (0)",
                                 "</APPLY_REQUIRED> hal_input_hdmi (0)",
                             }));
  hal_service_t* offered = hal_ts_find_service_by_tag(out->tsout, service_at(inputs[0]->tsout, 0)->tag);
  ASSERT_NE(offered, nullptr);
  EXPECT_STREQ(offered->settings.service_name, "Renamed");
  EXPECT_EQ(calls.back(), "ip apply");
}

TEST_F(HalTsmux5x1Poll, ASwitchOnTheIpOutputReachesTheInputAndMakesItMaster) {
  hal_service_t* source = service_at(inputs[1]->tsout, 0);
  hal_service_set_enabled(hal_ts_find_service_by_tag(out->tsout, source->tag), 1);
  poll();
  EXPECT_EQ(source->enabled, 1);
  EXPECT_EQ(mux->master_tsin, inputs[1]->tsout);
  EXPECT_EQ(mux->settings.enabled[2], 1);
  EXPECT_EQ(mux->settings.enabled[4], 0);
  EXPECT_NE(std::find(calls.begin(), calls.end(), "psi 0 from 2"), calls.end());
  EXPECT_EQ(calls.back(), "ip apply");
}

TEST_F(HalTsmux5x1Poll, ASecondPollWithoutAChangeDoesNothing) {
  hal_service_set_name(service_at(inputs[1]->tsout, 0), "Renamed");
  poll();
  calls.clear();
  EXPECT_EQ(poll(), "");
  EXPECT_EQ(errors, "");
  EXPECT_TRUE(calls.empty());
}

}  // namespace
