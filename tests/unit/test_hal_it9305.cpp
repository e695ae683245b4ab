#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "hal.h"
#include "hal_it9305.h"
#include "hal_test_support.h"
#include "hal_ts.h"
#include "hal_tsmux_5x1.h"
#include "it9300.h"

namespace {

using namespace hal_test;

/* One chip port as programmed: "on" or "off", the filter mode and the used table entries as
 * entry:pid. */
std::string port_of(hal_it9305_t* chip, int port) {
  static const char* const modes[] = {"disable", "pass", "block"};
  const it9300_chip_state_t& state = chip->it9305.endeavour.state[0];
  std::string text =
      std::string(state.tsPortEnabled[port] ? "on " : "off ") + modes[state.pidFilterMode[port]];
  for (int entry = 0; entry < IT9300_PID_TABLE_SIZE; entry++) {
    const it9300_pid_entry_t& slot = state.pidTable[port][entry];
    if (slot.used) text += " " + std::to_string(entry) + ":" + std::to_string(slot.pid);
  }
  return text;
}

std::vector<std::string> ports_of(hal_it9305_t* chip) {
  std::vector<std::string> texts;
  texts.reserve(IT9300_TS_INPUTS);
  for (int port = 0; port < IT9300_TS_INPUTS; port++) texts.push_back(port_of(chip, port));
  return texts;
}

const std::string stuffing_only = " 0:8191";
const std::string psi_blocked = " 0:8191 1:0 2:1 3:16 4:17 5:18 6:19 7:20 8:8187";

std::string read_text(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

/* The warnings of the chip driver among those of a poll cycle. */
std::vector<std::string> chip_warnings(const std::string& err) {
  std::vector<std::string> found;
  for (const std::string& warning : warnings_in(err)) {
    if (warning.rfind("it9305", 0) == 0) found.push_back(warning);
  }
  return found;
}

/* The board's routing: inputs 0 to 3 on ports 4, 2, 0, 1; the fifth input, on port 3, is not
 * connected. */
constexpr uint8_t ports[HAL_TSMUX_5X1_INPUTS] = {4, 2, 0, 1, 3};

gpio_t no_reset_line() { return {"/nonexistent/value", "/nonexistent/direction", "196", -1}; }

class HalIt9305 : public HalTest {
 protected:
  void SetUp() override {
    HalTest::SetUp();
    it9300_refusal = {IT9300_CALL_NONE, 0, IT9300_OK};
    chip = new_hal_it9305("it9305_0", 0x34, nullptr, 20, no_reset_line());
    ASSERT_NE(chip, nullptr);
  }
  void TearDown() override {
    if (mux != nullptr) delete_object(mux);
    for (hal_ts_t* in : ins) {
      if (in != nullptr) delete_object(in);
    }
    if (chip != nullptr) delete_object(chip);
    it9300_refusal = {IT9300_CALL_NONE, 0, IT9300_OK};
    HalTest::TearDown();
  }
  /* Four inputs with one service each, tags 0 to 3 in input order, on a multiplexer of the
   * chip wired like the board's. */
  void make_mux() {
    for (int i = 0; i < 4; i++) {
      ins[i] = new_hal_ts();
      add_service(ins[i], static_cast<uint16_t>(i + 1), "In" + std::to_string(i));
    }
    mux = new_hal_it9305_tsmux_5x1(chip, {ins[0], ports[0]}, {ins[1], ports[1]}, {ins[2], ports[2]},
                                   {ins[3], ports[3]}, {nullptr, ports[4]});
    ASSERT_NE(mux, nullptr);
  }
  /* Switches the service that input `i` offers on the multiplexer's tsout. */
  void switch_input(hal_tsmux_5x1_t* which, int i, uint8_t enabled) {
    hal_ts_find_service_by_tag(which->tsout, service_at(ins[i], 0)->tag)->enabled = enabled;
  }
  /* Runs a sync step; returns its warnings as "<function>: <text>". */
  static std::vector<std::string> sync(hal_tsmux_5x1_t* which) {
    return warnings_in(printed_by([which] { hal_tsmux_5x1_sync(which); }).err);
  }

  hal_it9305_t* chip = nullptr;
  hal_ts_t* ins[4] = {};
  hal_tsmux_5x1_t* mux = nullptr;
};

TEST_F(HalIt9305, ConstructorLeavesTheChipUntouchedAndItsRecordZeroFilled) {
  char dir_template[] = "/tmp/hal_it9305XXXXXX";
  ASSERT_NE(mkdtemp(dir_template), nullptr);
  const std::string dir = dir_template;
  const std::string value = dir + "/value";
  const std::string direction = dir + "/direction";
  std::ofstream(value) << "1";
  std::ofstream(direction) << "in";
  int bus = 0;
  hal_it9305_t* other = nullptr;
  printed_t printed = printed_by([&] {
    other = new_hal_it9305("it9305_1", 0x35, reinterpret_cast<hal_i2c_t*>(&bus), 20,
                           {value.c_str(), direction.c_str(), "193", -1});
  });
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(printed.out + printed.err, "");
  EXPECT_EQ(read_text(value), "1");
  EXPECT_EQ(read_text(direction), "in");
  unlink(value.c_str());
  unlink(direction.c_str());
  rmdir(dir.c_str());

  EXPECT_EQ(other->hal_object.type, HAL_IT9305);
  EXPECT_EQ(other->hal_object.user, &other->it9305);
  EXPECT_EQ(other->hal_object.delete_, delete_hal_it9305);
  EXPECT_EQ(other->hal_object.strerror, hal_it9305_strerror);
  EXPECT_EQ(other->hal_object.err, HAL_OK);
  EXPECT_EQ(other->hal_object.node.owner, nullptr);
  EXPECT_EQ(hal.node_count, 0u);
  static const it9305_t zero = {};
  EXPECT_EQ(memcmp(&other->it9305, &zero, sizeof(it9305_t)), 0);
  delete_object(other);
}

TEST_F(HalIt9305, DeleteTakesTheChipOutOfTheRegistry) {
  lnklist_push_node(&hal, &chip->hal_object.node);
  EXPECT_EQ(hal_object_by_type(HAL_IT9305, 0), &chip->hal_object);
  delete_object(chip);
  chip = nullptr;
  EXPECT_EQ(hal.node_count, 0u);
}

TEST_F(HalIt9305, AnyNonZeroDriverResultIsATsmuxError) {
  EXPECT_EQ(hal_translate_it9305_err(0), HAL_OK);
  for (it9305_err_t err : std::vector<it9305_err_t>{1, 2, IT9300_ERR_TS_INPUT, 0xFFFFFFFF}) {
    EXPECT_EQ(hal_translate_it9305_err(err), HAL_TSMUX_ERR) << err;
  }
}

TEST_F(HalIt9305, BlockModesGiveBlockFiltersAndPassModesPassFilters) {
  EXPECT_EQ(hal_to_it9305_pidfilter_mode(HAL_PIDFILTER_BLOCK_NONE), PID_FILTER_MODE_BLOCK);
  EXPECT_EQ(hal_to_it9305_pidfilter_mode(HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS), PID_FILTER_MODE_BLOCK);
  EXPECT_EQ(hal_to_it9305_pidfilter_mode(HAL_PIDFILTER_DISABLED), PID_FILTER_MODE_BLOCK);
  EXPECT_EQ(hal_to_it9305_pidfilter_mode(HAL_PIDFILTER_PASS_NONE), PID_FILTER_MODE_PASS);
  EXPECT_EQ(hal_to_it9305_pidfilter_mode(HAL_PIDFILTER_PASS_STUFFING), PID_FILTER_MODE_PASS);
  EXPECT_EQ(hal_to_it9305_pidfilter_mode(static_cast<hal_pidfilter_mode_t>(5)), PID_FILTER_MODE_PASS);
  EXPECT_EQ(hal_to_it9305_pidfilter_mode(static_cast<hal_pidfilter_mode_t>(-1)), PID_FILTER_MODE_PASS);
}

TEST_F(HalIt9305, OperationsReachTheEmbeddedChipAndKeepTheResult) {
  EXPECT_EQ(hal_it9305_pidfilter_init(chip, 2, HAL_PIDFILTER_PASS_STUFFING), HAL_OK);
  EXPECT_EQ(hal_it9305_pidfilter_add_pid(chip, 2, 0x1FFF), HAL_OK);
  EXPECT_EQ(hal_it9305_set_enabled(chip, 2, 1), HAL_OK);
  EXPECT_EQ(chip->hal_object.err, HAL_OK);
  EXPECT_EQ(port_of(chip, 2), "on pass" + stuffing_only);
  EXPECT_EQ(chip->it9305.endeavour.callCount, 4u);
  EXPECT_EQ(hal_it9305_set_enabled(chip, 2, 0), HAL_OK);
  EXPECT_EQ(port_of(chip, 2), "off pass" + stuffing_only);
}

TEST_F(HalIt9305, RefusalsAreTsmuxErrorsWithTheChipsWarnings) {
  printed_t printed = printed_by([&] {
    EXPECT_EQ(hal_it9305_set_enabled(chip, 5, 1), HAL_TSMUX_ERR);
    EXPECT_EQ(chip->hal_object.err, HAL_TSMUX_ERR);
    EXPECT_EQ(chip->it9305.err, IT9300_ERR_TS_INPUT);
    EXPECT_EQ(hal_it9305_pidfilter_add_pid(chip, 0, 0x2000), HAL_TSMUX_ERR);
    it9300_refusal = {IT9300_CALL_RESET_PID_TABLE, 3, 42};
    EXPECT_EQ(hal_it9305_pidfilter_init(chip, 3, HAL_PIDFILTER_DISABLED), HAL_TSMUX_ERR);
    EXPECT_EQ(chip->it9305.err, 42u);
  });
  /* The record was never brought up, so the chip has no name. */
  EXPECT_EQ(without_lines(printed.err),
            wrn("it9305_set_enabled", " - Could not enable TS 5 (error: 259)") +
                wrn("it9305_pidfilter_add_pid",
                    " - Could not add PID <8192> to PID filter mode for TS input 0 (error: 260)") +
                wrn("it9305_pidfilter_init", " - Could not reset PID filter for TS input 3 (error: 42)"));
  EXPECT_EQ(printed.out, "");
  EXPECT_EQ(hal_it9305_set_enabled(chip, 4, 0), HAL_OK);
  EXPECT_EQ(chip->hal_object.err, HAL_OK);
}

TEST_F(HalIt9305, StrerrorIsTheChipsForTheChipAndItsMultiplexers) {
  make_mux();
  EXPECT_STREQ(hal_it9305_strerror(&chip->hal_object), "tsmux ok");
  EXPECT_STREQ(mux->hal_object.strerror(&mux->hal_object), "tsmux ok");
  quietly([&] { hal_it9305_set_enabled(chip, 7, 1); });
  EXPECT_STREQ(chip->hal_object.strerror(&chip->hal_object), "tsmux error: 259");
  EXPECT_STREQ(mux->hal_object.strerror(&mux->hal_object), "tsmux error: 259");
}

TEST_F(HalIt9305, MultiplexerGetsTheChipsOperationsAndKeepsItsInputs) {
  make_mux();
  EXPECT_EQ(mux->hal_object.type, HAL_TSMUX_5X1);
  EXPECT_EQ(mux->hal_object.delete_, delete_hal_tsmux_5x1);
  EXPECT_EQ(mux->hal_object.user, chip);
  EXPECT_EQ(mux->hal_object.strerror, hal_it9305_strerror);
  EXPECT_EQ(mux->init.pidfilter, hal_it9305_pidfilter_init);
  EXPECT_EQ(mux->add.pidfilter_pid, hal_it9305_pidfilter_add_pid);
  EXPECT_EQ(mux->set.enabled, hal_it9305_set_enabled);
  EXPECT_EQ(mux->get.enabled, nullptr);
  for (int i = 0; i < 4; i++) {
    EXPECT_EQ(mux->tsin[i].ts, ins[i]);
    EXPECT_EQ(mux->tsin[i].ts_index, ports[i]);
  }
  EXPECT_EQ(mux->tsin[4].ts, nullptr);
  EXPECT_EQ(mux->tsin[4].ts_index, 3);
  ASSERT_NE(mux->tsout, nullptr);
  EXPECT_EQ(mux->tsout->tag, 4u);
  EXPECT_EQ(hal.node_count, 0u);
  EXPECT_EQ(chip->it9305.endeavour.callCount, 0u);
}

TEST_F(HalIt9305, EachModeProgramsItsFilter) {
  make_mux();
  for (int mode = HAL_PIDFILTER_BLOCK_NONE; mode <= HAL_PIDFILTER_PASS_STUFFING; mode++) {
    EXPECT_EQ(hal_tsmux_5x1_pidfilter_init(mux, static_cast<uint8_t>(mode),
                                           static_cast<hal_pidfilter_mode_t>(mode)),
              HAL_OK);
  }
  EXPECT_EQ(ports_of(chip), (std::vector<std::string>{"off block" + stuffing_only, "off block" + psi_blocked,
                                                      "off block", "off pass", "off pass" + stuffing_only}));
}

TEST_F(HalIt9305, DisabledIsABlockFilterAndPassNoneAPassFilterBothWithEmptyTables) {
  make_mux();
  hal_tsmux_5x1_pidfilter_init(mux, 0, HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS);
  hal_tsmux_5x1_pidfilter_init(mux, 1, HAL_PIDFILTER_BLOCK_ALL_PSI_PIDS);
  EXPECT_EQ(hal_tsmux_5x1_pidfilter_init(mux, 0, HAL_PIDFILTER_DISABLED), HAL_OK);
  EXPECT_EQ(hal_tsmux_5x1_pidfilter_init(mux, 1, HAL_PIDFILTER_PASS_NONE), HAL_OK);
  EXPECT_EQ(port_of(chip, 0), "off block");
  EXPECT_EQ(port_of(chip, 1), "off pass");
  EXPECT_EQ(chip->it9305.pidfilter_index, 0);
}

TEST_F(HalIt9305, SyncWithServicesOnInputsOneAndThreeProgramsTheChip) {
  make_mux();
  EXPECT_EQ(sync(mux), std::vector<std::string>{});
  switch_input(mux, 1, 1);
  switch_input(mux, 3, 1);
  const uint32_t before = chip->it9305.endeavour.callCount;
  EXPECT_EQ(sync(mux), std::vector<std::string>{});
  EXPECT_EQ(mux->hal_object.err, HAL_OK);
  EXPECT_EQ(chip->hal_object.err, HAL_OK);
  EXPECT_EQ(mux->master_tsin, ins[1]);
  /* Port 2 carries the master (input 1), port 1 input 3; ports 4 and 0 are off and the port of
   * the unconnected input is never touched. */
  EXPECT_EQ(ports_of(chip),
            (std::vector<std::string>{"off disable", "on block" + psi_blocked, "on block" + stuffing_only,
                                      "off disable", "off pass" + stuffing_only}));
  const it9300_call_entry_t* log = chip->it9305.endeavour.callLog;
  std::vector<std::string> order;
  for (uint32_t i = before; i < chip->it9305.endeavour.callCount; i++) {
    order.push_back(std::to_string(log[i].call) + "/" + std::to_string(log[i].args[0]));
  }
  const std::string disable = std::to_string(IT9300_CALL_DISABLE_TS_PORT) + "/";
  const std::string enable = std::to_string(IT9300_CALL_ENABLE_TS_PORT) + "/";
  const std::string reset = std::to_string(IT9300_CALL_RESET_PID_TABLE) + "/";
  const std::string mode = std::to_string(IT9300_CALL_SET_MODE) + "/";
  const std::string add = std::to_string(IT9300_CALL_ADD_PID) + "/";
  std::vector<std::string> expected = {disable + "4", reset + "2",   mode + "2",  add + "2",
                                       enable + "2",  disable + "0", reset + "1", mode + "1"};
  expected.insert(expected.end(), 9, add + "1");
  expected.push_back(enable + "1");
  EXPECT_EQ(order, expected);
}

TEST_F(HalIt9305, SyncWithoutEnabledServicesPassesStuffingOnInputZerosPort) {
  make_mux();
  sync(mux);
  switch_input(mux, 0, 1);
  sync(mux);
  EXPECT_EQ(port_of(chip, 4), "on block" + stuffing_only);
  switch_input(mux, 0, 0);
  sync(mux);
  EXPECT_EQ(ports_of(chip), (std::vector<std::string>{"off disable", "off disable", "off disable",
                                                      "off disable", "on pass" + stuffing_only}));
  EXPECT_EQ(mux->master_tsin, nullptr);
}

TEST_F(HalIt9305, TwoChipsOnTheSameInputsTakeDifferentMasters) {
  make_mux();
  hal_it9305_t* second = new_hal_it9305("it9305_1", 0x35, nullptr, 20, no_reset_line());
  ASSERT_NE(second, nullptr);
  hal_tsmux_5x1_t* other =
      new_hal_it9305_tsmux_5x1(second, {ins[0], ports[0]}, {ins[1], ports[1]}, {ins[2], ports[2]},
                               {ins[3], ports[3]}, {nullptr, ports[4]});
  ASSERT_NE(other, nullptr);
  sync(other);
  sync(mux);
  switch_input(other, 2, 1);
  switch_input(other, 3, 1);
  switch_input(mux, 2, 1);
  sync(other);
  sync(mux);
  EXPECT_EQ(other->master_tsin, ins[2]);
  EXPECT_EQ(mux->master_tsin, nullptr);
  EXPECT_EQ(ports_of(second),
            (std::vector<std::string>{"on block" + stuffing_only, "on block" + psi_blocked, "off disable",
                                      "off disable", "off pass" + stuffing_only}));
  EXPECT_EQ(ports_of(chip), (std::vector<std::string>{"on block" + psi_blocked, "off disable", "off disable",
                                                      "off disable", "off pass" + stuffing_only}));
  delete_object(other);
  delete_object(second);
}

TEST_F(HalIt9305, APollCycleProgramsTheChipOfARegisteredMultiplexer) {
  fake_input_t* inputs[4] = {};
  for (int i = 3; i >= 0; i--) {
    inputs[i] = add_fake_input(0);
    add_service(inputs[i]->tsout, static_cast<uint16_t>(i + 1), "In" + std::to_string(i));
  }
  lnklist_push_node(&hal, &chip->hal_object.node);
  hal_tsmux_5x1_t* registered = new_hal_it9305_tsmux_5x1(
      chip, {inputs[0]->tsout, ports[0]}, {inputs[1]->tsout, ports[1]}, {inputs[2]->tsout, ports[2]},
      {inputs[3]->tsout, ports[3]}, {nullptr, ports[4]});
  ASSERT_NE(registered, nullptr);
  lnklist_push_node(&hal, &registered->hal_object.node);
  chip = nullptr;
  poll();
  EXPECT_EQ(chip_warnings(errors), std::vector<std::string>{});
  hal_it9305_t* polled = reinterpret_cast<hal_it9305_t*>(hal_object_by_type(HAL_IT9305, 0));
  EXPECT_EQ(ports_of(polled), (std::vector<std::string>{"off disable", "off disable", "off disable",
                                                        "off disable", "on pass" + stuffing_only}));
  hal_ts_find_service_by_tag(registered->tsout, service_at(inputs[3]->tsout, 0)->tag)->enabled = 1;
  poll();
  EXPECT_EQ(chip_warnings(errors), std::vector<std::string>{});
  EXPECT_EQ(registered->master_tsin, inputs[3]->tsout);
  EXPECT_EQ(ports_of(polled),
            (std::vector<std::string>{"off disable", "on block" + stuffing_only, "off disable", "off disable",
                                      "off pass" + stuffing_only}));
}

}  // namespace
