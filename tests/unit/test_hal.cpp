#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <zlib.h>

#include <memory>
#include <string>
#include <vector>

#include "boxroot.h"
#include "dbg.h"
#include "hal.h"
#include "hal_device.h"
#include "hal_i2c.h"
#include "hal_input_hdmi.h"
#include "hal_it9305.h"
#include "hal_mod_tarn.h"
#include "hal_output_ip.h"
#include "hal_output_rf.h"
#include "hal_qel2ip.h"
#include "hal_test_support.h"
#include "hal_tsmux_5x1.h"
#include "module_bus.h"

namespace {

using namespace hal_test;

/* A driven object whose change test reports what the test marked as changed. */
struct fake_t {
  hal_object_t hal_object;
  uint32_t settings_crc;
  uint8_t sync_required;
  uint8_t apply_required;
  uint8_t changed_sync;  /* a change that owes a sync */
  uint8_t changed_apply; /* a change that owes an apply */
  fake_t* feeds;         /* whose input its sync rewrites */
  int number;
};

std::vector<std::string> steps;

uint8_t fake_changed(hal_object_t* object) {
  fake_t* fake = reinterpret_cast<fake_t*>(object);
  if (fake->changed_sync) fake->sync_required = 1;
  if (fake->changed_apply) fake->apply_required = 1;
  fake->changed_sync = fake->changed_apply = 0;
  return fake->sync_required | fake->apply_required;
}

hal_err_t fake_sync(hal_object_t* object) {
  fake_t* fake = reinterpret_cast<fake_t*>(object);
  steps.push_back("sync " + std::to_string(fake->number));
  if (fake->feeds != nullptr) fake->feeds->changed_sync = 1;
  fake->apply_required = 1;
  fake->sync_required = 0;
  return HAL_OK;
}

hal_err_t fake_apply(hal_object_t* object) {
  fake_t* fake = reinterpret_cast<fake_t*>(object);
  steps.push_back("apply " + std::to_string(fake->number));
  fake->apply_required = 0;
  return HAL_OK;
}

const hal_poll_ops_t fake_ip_ops = {"hal_output_ip",
                                    fake_changed,
                                    fake_sync,
                                    fake_apply,
                                    offsetof(fake_t, sync_required),
                                    offsetof(fake_t, apply_required)};
const hal_poll_ops_t fake_rf_ops = {"hal_output_rf",
                                    fake_changed,
                                    fake_sync,
                                    fake_apply,
                                    offsetof(fake_t, sync_required),
                                    offsetof(fake_t, apply_required)};
const hal_poll_ops_t fake_mux_ops = {"hal_tsmux_5x1",
                                     fake_changed,
                                     fake_sync,
                                     NULL,
                                     offsetof(fake_t, sync_required),
                                     offsetof(fake_t, apply_required)};
const hal_poll_ops_t fake_hdmi_ops = {"hal_input_hdmi",
                                      fake_changed,
                                      NULL,
                                      fake_apply,
                                      offsetof(fake_t, sync_required),
                                      offsetof(fake_t, apply_required)};

int deletes;

void fake_delete(hal_object_t* object) {
  deletes++;
  delete_hal_object(object);
}

fake_t* add_fake(hal_object_type_t type, int number) {
  fake_t* fake = reinterpret_cast<fake_t*>(hal_object_alloc(sizeof(fake_t)));
  fake->hal_object.type = type;
  fake->hal_object.delete_ = fake_delete;
  fake->number = number;
  lnklist_push_node(&hal, &fake->hal_object.node);
  return fake;
}

/* What the poll cycle prints for one step of one object. */
std::string step_block(const std::string& tag, const std::string& kind, int id) {
  std::string suffix = kind + " (" + std::to_string(id) + ")";
  return "\n\r" + msg("<" + tag + "> " + suffix) + msg("</" + tag + "> " + suffix) + "\n\r";
}

class Hal : public HalTest {
 protected:
  void SetUp() override {
    HalTest::SetUp();
    hal_poll_register(HAL_OUTPUT_IP, &fake_ip_ops);
    hal_poll_register(HAL_OUTPUT_RF, &fake_rf_ops);
    hal_poll_register(HAL_TSMUX_5X1, &fake_mux_ops);
    hal_poll_register(HAL_INPUT_HDMI, &fake_hdmi_ops);
    steps.clear();
    deletes = 0;
    verbose = 1;
  }
};

TEST_F(Hal, EmptyRegistryPollsNothingAndCountsZero) {
  EXPECT_EQ(poll(), "");
  for (int type = HAL_NONE; type < HAL_OBJECT_TYPE_COUNT; type++) {
    EXPECT_EQ(hal_object_count_by_type(static_cast<hal_object_type_t>(type)), 0u);
  }
  EXPECT_EQ(hal_object_by_type(HAL_DEVICE, 0), nullptr);
}

TEST_F(Hal, CleanupOfAnEmptyRegistryReturnsAtOnce) {
  hal_cleanup();
  EXPECT_EQ(hal.head, nullptr);
  EXPECT_EQ(deletes, 0);
}

TEST_F(Hal, LookupCountsAmongItsKindNewestFirst) {
  fake_t* hdmi[4];
  for (int n = 3; n >= 0; n--) {
    add_fake(HAL_I2C, 100 + n);
    hdmi[n] = add_fake(HAL_INPUT_HDMI, n);
    add_fake(HAL_OUTPUT_RF, 200 + n);
  }
  EXPECT_EQ(hal_object_count_by_type(HAL_INPUT_HDMI), 4u);
  EXPECT_EQ(hal_object_count_by_type(HAL_TS), 0u);
  /* Created from the highest number down, so number 0 is the newest and index 0. */
  for (uint32_t n = 0; n < 4; n++) EXPECT_EQ(hal_object_by_type(HAL_INPUT_HDMI, n), &hdmi[n]->hal_object);
  EXPECT_EQ(hal_object_by_type(HAL_INPUT_HDMI, 3), &hdmi[3]->hal_object);
  EXPECT_EQ(hal_object_by_type(HAL_INPUT_HDMI, 4), nullptr);
}

TEST_F(Hal, DeleteTakesTheObjectOutOfTheRegistry) {
  fake_t* a = add_fake(HAL_DEVICE, 0);
  add_fake(HAL_DEVICE, 1);
  delete_hal_object(&a->hal_object);
  EXPECT_EQ(hal.node_count, 1u);
  EXPECT_EQ(hal_object_count_by_type(HAL_DEVICE), 1u);
}

TEST_F(Hal, CleanupDeletesEveryObject) {
  for (int n = 0; n < 5; n++) add_fake(static_cast<hal_object_type_t>(HAL_I2C + n), n);
  hal_cleanup();
  EXPECT_EQ(deletes, 5);
  EXPECT_EQ(hal.head, nullptr);
  EXPECT_EQ(hal.node_count, 0u);
}

TEST_F(Hal, AnHdmiSettingsChangeAppliesOnlyThatInputInTheSameCycle) {
  add_fake(HAL_INPUT_HDMI, 1);
  fake_t* hdmi0 = add_fake(HAL_INPUT_HDMI, 0);
  add_fake(HAL_OUTPUT_RF, 0);
  hdmi0->changed_apply = 1;
  EXPECT_EQ(poll(), step_block("APPLY_REQUIRED", "hal_input_hdmi", 0));
  EXPECT_EQ(steps, (std::vector<std::string>{"apply 0"}));
}

TEST_F(Hal, AMultiplexerInputChangeSyncsThenNestsUntilQuietThenApplies) {
  fake_t* out = add_fake(HAL_OUTPUT_RF, 1);
  fake_t* mux = add_fake(HAL_TSMUX_5X1, 2);
  mux->feeds = out;
  mux->changed_sync = 1;
  std::string expected = step_block("SYNC_REQUIRED", "hal_tsmux_5x1", 0) +
                         step_block("SYNC_REQUIRED", "hal_output_rf", 0) +
                         step_block("APPLY_REQUIRED", "hal_output_rf", 0);
  EXPECT_EQ(poll(), expected);
  EXPECT_EQ(steps, (std::vector<std::string>{"sync 2", "sync 1", "apply 1"}));
}

TEST_F(Hal, SyncOrderIsIpThenRfThenMultiplexers) {
  fake_t* mux = add_fake(HAL_TSMUX_5X1, 3);
  fake_t* rf = add_fake(HAL_OUTPUT_RF, 2);
  fake_t* ip = add_fake(HAL_OUTPUT_IP, 1);
  mux->changed_sync = rf->changed_sync = ip->changed_sync = 1;
  poll();
  EXPECT_EQ(steps, (std::vector<std::string>{"sync 1", "sync 2", "sync 3", "apply 1", "apply 2"}));
}

TEST_F(Hal, ApplyOrderIsIpThenRfThenHdmi) {
  fake_t* hdmi = add_fake(HAL_INPUT_HDMI, 3);
  fake_t* rf = add_fake(HAL_OUTPUT_RF, 2);
  fake_t* ip = add_fake(HAL_OUTPUT_IP, 1);
  hdmi->changed_apply = rf->changed_apply = ip->changed_apply = 1;
  poll();
  EXPECT_EQ(steps, (std::vector<std::string>{"apply 1", "apply 2", "apply 3"}));
}

TEST_F(Hal, ASecondPollWithoutChangeDoesNothing) {
  fake_t* rf = add_fake(HAL_OUTPUT_RF, 0);
  rf->changed_apply = 1;
  poll();
  steps.clear();
  EXPECT_EQ(poll(), "");
  EXPECT_TRUE(steps.empty());
}

TEST_F(Hal, NoLinesWithoutVerbose) {
  fake_t* rf = add_fake(HAL_OUTPUT_RF, 0);
  rf->changed_sync = 1;
  verbose = 0;
  EXPECT_EQ(poll(), "");
  EXPECT_EQ(steps, (std::vector<std::string>{"sync 0", "apply 0"}));
}

/* zlib's crc32 of the bytes laid end to end, computed directly. */
uint32_t zlib_crc(const std::string& bytes) {
  return static_cast<uint32_t>(crc32(crc32(0, NULL, 0), reinterpret_cast<const Bytef*>(bytes.data()),
                                     static_cast<uInt>(bytes.size())));
}

TEST(HalCrcMemo, GivesZlibsChecksumOfTheBytesLaidEndToEnd) {
  hal_crc_memo_t memo = {};
  const std::string head = "settings";
  const uint8_t tail = 1;
  EXPECT_EQ(zlib_crc(head + '\x01'), hal_crc32_memo(&memo, head.data(), head.size(), &tail, 1));
  EXPECT_EQ(zlib_crc(head + '\x01'), hal_crc32_memo(&memo, head.data(), head.size(), &tail, 1));
  EXPECT_EQ(zlib_crc(head), hal_crc32_memo(&memo, head.data(), head.size()));
}

TEST(HalCrcMemo, BytesThatMovedSinceTheLastChecksumAreHashedAgain) {
  hal_crc_memo_t memo = {};
  std::string group(40, 'a');
  hal_crc32_memo(&memo, group.data(), group.size());
  group[39] = 'b';
  EXPECT_EQ(zlib_crc(group), hal_crc32_memo(&memo, group.data(), group.size()));
  uint8_t tail = 0;
  hal_crc32_memo(&memo, group.data(), group.size(), &tail, 1);
  tail = 1;
  EXPECT_EQ(zlib_crc(group + '\x01'), hal_crc32_memo(&memo, group.data(), group.size(), &tail, 1));
}

TEST(HalCrcMemo, AGroupLargerThanTheMemoIsStillHashed) {
  hal_crc_memo_t memo = {};
  std::string group(HAL_CRC_MEMO_SIZE + 1, 'a');
  EXPECT_EQ(zlib_crc(group), hal_crc32_memo(&memo, group.data(), group.size()));
  group[0] = 'b';
  EXPECT_EQ(zlib_crc(group), hal_crc32_memo(&memo, group.data(), group.size()));
}

TEST(HalCrcMemo, ChangeTestTakesInOnlyWhenAsked) {
  hal_crc_memo_t memo = {};
  const std::string group = "group";
  uint32_t settings_crc = 0;
  EXPECT_EQ(1, hal_settings_changed_memo(&memo, group.data(), group.size(), &settings_crc, 0));
  EXPECT_EQ(0u, settings_crc);
  EXPECT_EQ(1, hal_settings_changed_memo(&memo, group.data(), group.size(), &settings_crc, 1));
  EXPECT_EQ(zlib_crc(group), settings_crc);
  EXPECT_EQ(0, hal_settings_changed_memo(&memo, group.data(), group.size(), &settings_crc, 1));
  settings_crc++; /* a forced change */
  EXPECT_EQ(1, hal_settings_changed_memo(&memo, group.data(), group.size(), &settings_crc, 1));
}

TEST_F(Hal, AlloceZeroFills) {
  fake_t* fake = add_fake(HAL_DEVICE, 0);
  EXPECT_EQ(fake->settings_crc, 0u);
  EXPECT_EQ(fake->feeds, nullptr);
  EXPECT_EQ(fake->hal_object.user, nullptr);
  EXPECT_EQ(fake->hal_object.err, HAL_OK);
}

/* ---- the box of each output mode, built on the four modules of a simulated bus ---- */

std::string hex(uint32_t value) {
  char text[16];
  snprintf(text, sizeof(text), "0x%02X", value);
  return text;
}

/* The index of an object among those of its kind. */
uint32_t index_of(const hal_object_t* object) {
  for (uint32_t id = 0;; id++) {
    if (hal_object_by_type(object->type, id) == object) return id;
  }
}

std::string kind_index(const hal_object_t* object, const char* kind) {
  return std::string(kind) + " " + std::to_string(index_of(object));
}

/* Which object produces a TS: "input_hdmi <n>", "tsmux <n>", or "nothing". */
std::string producer_of(const hal_ts_t* ts) {
  for (hal_object_type_t type : {HAL_INPUT_HDMI, HAL_TSMUX_5X1}) {
    for (uint32_t id = 0; id < hal_object_count_by_type(type); id++) {
      hal_object_t* object = hal_object_by_type(type, id);
      const hal_ts_t* tsout = type == HAL_INPUT_HDMI ? reinterpret_cast<hal_input_hdmi_t*>(object)->tsout
                                                     : reinterpret_cast<hal_tsmux_5x1_t*>(object)->tsout;
      if (tsout == ts) return kind_index(object, type == HAL_INPUT_HDMI ? "input_hdmi" : "tsmux");
    }
  }
  return ts == nullptr ? "nothing" : "a foreign TS";
}

std::string module_of(const hal_object_t* object) {
  const hal_mod_tarn_t* module = static_cast<const hal_mod_tarn_t*>(object->user);
  return module == nullptr ? "no module" : module->mod_tarn.name;
}

std::string ts_tag(const hal_ts_t* ts) { return "ts " + std::to_string(ts->tag); }

std::string describe_tsmux(const hal_tsmux_5x1_t* mux) {
  std::string text = "tsmux on " +
                     kind_index(static_cast<const hal_object_t*>(mux->hal_object.user), "it9305") + ", " +
                     ts_tag(mux->tsout) + ":";
  for (const hal_tsmux_tsin_t& in : mux->tsin) {
    text += " " + producer_of(in.ts) + " on port " + std::to_string(in.ts_index) +
            (&in == &mux->tsin[4] ? "" : ",");
  }
  return text;
}

/* A chip whose record the assembly left as it was made: nothing described, booted or written. */
std::string describe_it9305(const hal_it9305_t* chip) {
  const Endeavour& record = chip->it9305.endeavour;
  const bool untouched = record.chipCount == 0 && !record.gator[0].existed && !record.state[0].booted &&
                         record.state[0].registerCount == 0;
  return untouched ? "it9305, not brought up" : "it9305, brought up";
}

std::string describe_device(const hal_device_t* device) {
  static const char* const modes[] = {"ip_spts", "ip_mpts", "rf"};
  return std::string("device ") + modes[device->settings.output_mode] + ": " + device->alarm_led.brightness +
         " " + device->alarm_led.trigger + " " + device->temp_sensor.temperature;
}

/* One registered object as the assembly made it: what it is, where it sits and what feeds it. */
std::string describe(hal_object_t* object, const std::string& root) {
  switch (object->type) {
    case HAL_I2C: {
      const i2c_t& i2c = reinterpret_cast<hal_i2c_t*>(object)->i2c;
      const std::string dev = i2c.dev;
      return std::string("i2c ") + i2c.name + " on " +
             (dev.rfind(root, 0) == 0 ? dev.substr(root.size()) : dev);
    }
    case HAL_MOD_TARN: {
      const mod_tarn_t& module = reinterpret_cast<hal_mod_tarn_t*>(object)->mod_tarn;
      return std::string("mod_tarn ") + module.name + " at " + hex(module.i2c_addr);
    }
    case HAL_INPUT_HDMI:
      return "input_hdmi on " + module_of(object) + ", " +
             ts_tag(reinterpret_cast<hal_input_hdmi_t*>(object)->tsout);
    case HAL_IT9305:
      return describe_it9305(reinterpret_cast<hal_it9305_t*>(object));
    case HAL_TSMUX_5X1:
      return describe_tsmux(reinterpret_cast<hal_tsmux_5x1_t*>(object));
    case HAL_OUTPUT_RF: {
      const hal_output_rf_t* rf = reinterpret_cast<hal_output_rf_t*>(object);
      return "output_rf on " + module_of(object) + ", " + ts_tag(rf->tsout) + ", fed by " +
             producer_of(rf->tsin);
    }
    case HAL_OUTPUT_IP: {
      const hal_output_ip_t* ip = reinterpret_cast<hal_output_ip_t*>(object);
      return std::string("output_ip qel ") + static_cast<hal_qel2ip_t*>(object->user)->s_qel_id + ", " +
             ts_tag(ip->tsout) + ", fed by " + producer_of(ip->tsin);
    }
    case HAL_DEVICE:
      return describe_device(reinterpret_cast<hal_device_t*>(object));
    default:
      return "object of type " + std::to_string(object->type);
  }
}

/* One TS port of a chip as the chip holds it: switched on or off, its filter mode and the PIDs of its
 * table in entry order. */
std::string port_state(const it9300_chip_state_t& chip, int port) {
  static const char* const modes[] = {"disable", "pass", "block"};
  std::string text = "port " + std::to_string(port) + (chip.tsPortEnabled[port] ? " on, " : " off, ") +
                     modes[chip.pidFilterMode[port]];
  for (const it9300_pid_entry_t& entry : chip.pidTable[port]) {
    if (entry.used) text += " " + hex(entry.pid);
  }
  return text;
}

class HalAssembly : public HalTest {
 protected:
  void SetUp() override {
    HalTest::SetUp();
    char dir[] = "/tmp/tvaXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    root = dir;
    setenv("TAVID_ROOT", dir, 1);
    char probe[BOXROOT_PATH_LEN];
    if (boxroot_init() != 0 || std::string(boxroot_path(probe, sizeof(probe), "/x")) == "/x") {
      GTEST_SKIP() << "needs the host build's box root";
    }
    /* The bus only: with no streaming program in the root, an IP output whose service is switched
     * on fails to start one, and no child is forked. */
    ASSERT_EQ(mkdir((root + "/dev").c_str(), 0755), 0);
    bus = std::make_unique<simbus::ModuleBus>();
    ASSERT_TRUE(bus->start(root + "/dev/i2c-0"));
  }
  void TearDown() override {
    HalTest::TearDown();
    bus.reset();
    if (!root.empty()) {
      EXPECT_EQ(system(("rm -rf " + root).c_str()), 0);
    }
  }

  /* Builds the box of one mode and runs the daemon's first poll cycle. */
  void start(hal_err_t (*init)(void)) {
    EXPECT_EQ(quietly(init), HAL_OK);
    poll();
  }

  std::vector<std::string> registry() {
    std::vector<std::string> objects;
    lnklist_node_t* node;
    FOREACH_NODE(&hal, node) objects.push_back(describe(reinterpret_cast<hal_object_t*>(node), root));
    return objects;
  }

  /* The ports of chip n, as they now are. */
  static std::vector<std::string> chip(uint32_t n) {
    const hal_it9305_t* it9305 = reinterpret_cast<hal_it9305_t*>(hal_object_by_type(HAL_IT9305, n));
    std::vector<std::string> ports;
    ports.reserve(IT9300_TS_INPUTS);
    for (int port = 0; port < IT9300_TS_INPUTS; port++)
      ports.push_back(port_state(it9305->it9305.endeavour.state[0], port));
    return ports;
  }

  /* Switches a service on where the operator does, in the tsout of an output, then runs a poll cycle. */
  void enable(hal_object_type_t output, uint32_t id, uint16_t sid) {
    hal_object_t* object = hal_object_by_type(output, id);
    ASSERT_NE(object, nullptr);
    hal_ts_t* tsout = output == HAL_OUTPUT_RF ? reinterpret_cast<hal_output_rf_t*>(object)->tsout
                                              : reinterpret_cast<hal_output_ip_t*>(object)->tsout;
    hal_service_t* service = hal_ts_find_service(tsout, sid);
    ASSERT_NE(service, nullptr) << "SID " << sid;
    ASSERT_EQ(hal_service_set_enabled(service, 1), HAL_OK);
    poll();
  }

  /* The input a multiplexer takes its PSI from. */
  static std::string master_of(uint32_t mux) {
    return producer_of(
        reinterpret_cast<hal_tsmux_5x1_t*>(hal_object_by_type(HAL_TSMUX_5X1, mux))->master_tsin);
  }

  std::string root;
  std::unique_ptr<simbus::ModuleBus> bus;
};

/* The board's routing of the four HDMI modules to the TS ports of a chip; the fifth input is not
 * connected. */
const std::string kRouting =
    "input_hdmi 0 on port 4, input_hdmi 1 on port 2, input_hdmi 2 on port 0, input_hdmi 3 on port 1, nothing "
    "on "
    "port 3";
/* The alarm LEDs and temperature sensors of the board variants. */
const std::string kRgbRedLed = "/sys/class/leds/rgb_red/brightness /sys/class/leds/rgb_red/trigger";
const std::string kStorageLed = "/storage/brightness /storage/trigger";
const std::string kHwmon = "/sys/class/hwmon/hwmon0/device/temp1_input";
const std::string kThermal = "/sys/devices/virtual/thermal/thermal_zone0/temp";

/* What the variants with four modules register first, and so list last: the HDMI inputs, the
 * modules and the bus. */
const std::vector<std::string> kFourModules = {
    "input_hdmi on mod_tarn_0, ts 3", "input_hdmi on mod_tarn_1, ts 2", "input_hdmi on mod_tarn_2, ts 1",
    "input_hdmi on mod_tarn_3, ts 0", "mod_tarn mod_tarn_0 at 0x30",    "mod_tarn mod_tarn_1 at 0x31",
    "mod_tarn mod_tarn_2 at 0x32",    "mod_tarn mod_tarn_3 at 0x33",    "i2c i2c_0 on /dev/i2c-0"};

std::vector<std::string> then(std::vector<std::string> first, const std::vector<std::string>& rest) {
  first.insert(first.end(), rest.begin(), rest.end());
  return first;
}

/* The TS-mux chips as the first poll cycle leaves them with no service switched on: every input
 * port off, and the first HDMI input's port on with a filter that passes only stuffing. */
const std::vector<std::string> kStuffingOnly = {"port 0 off, disable", "port 1 off, disable",
                                                "port 2 off, disable", "port 3 off, disable",
                                                "port 4 on, pass 0x1FFF"};

TEST_F(HalAssembly, RfBuildsTwoMultiplexersOnTheBoardsRoutingEachOnItsOwnChipFeedingItsOwnOutput) {
  start(hal_init_rf);
  EXPECT_EQ(registry(),
            then({"device rf: " + kRgbRedLed + " " + kHwmon, "output_rf on mod_tarn_0, ts 7, fed by tsmux 0",
                  "output_rf on mod_tarn_2, ts 6, fed by tsmux 1", "tsmux on it9305 0, ts 5: " + kRouting,
                  "tsmux on it9305 1, ts 4: " + kRouting, "it9305, not brought up", "it9305, not brought up"},
                 kFourModules));
  EXPECT_EQ(chip(0), kStuffingOnly);
  EXPECT_EQ(chip(1), kStuffingOnly);
}

TEST_F(HalAssembly, RfProgramsTheChipOfTheOutputWhoseServiceIsSwitchedOn) {
  start(hal_init_rf);
  /* The second module's service (SID 2) on RF output 0: its chip passes that port whole, as master. */
  enable(HAL_OUTPUT_RF, 0, 2);
  EXPECT_EQ(chip(0),
            (std::vector<std::string>{"port 0 off, disable", "port 1 off, disable", "port 2 on, block 0x1FFF",
                                      "port 3 off, disable", "port 4 off, pass 0x1FFF"}));
  EXPECT_EQ(chip(1), kStuffingOnly);
  EXPECT_EQ(master_of(0), "input_hdmi 1");
  /* The fourth module's service (SID 4) on RF output 1: the other chip. */
  enable(HAL_OUTPUT_RF, 1, 4);
  EXPECT_EQ(chip(1),
            (std::vector<std::string>{"port 0 off, disable", "port 1 on, block 0x1FFF", "port 2 off, disable",
                                      "port 3 off, disable", "port 4 off, pass 0x1FFF"}));
  EXPECT_EQ(master_of(1), "input_hdmi 3");
  EXPECT_EQ(chip(0),
            (std::vector<std::string>{"port 0 off, disable", "port 1 off, disable", "port 2 on, block 0x1FFF",
                                      "port 3 off, disable", "port 4 off, pass 0x1FFF"}));
}

TEST_F(HalAssembly, RfAnInputMasteredByOneMultiplexerHasItsPsiBlockedOnTheOther) {
  start(hal_init_rf);
  enable(HAL_OUTPUT_RF, 0, 2);
  enable(HAL_OUTPUT_RF, 1, 2);
  enable(HAL_OUTPUT_RF, 1, 4);
  EXPECT_EQ(chip(0),
            (std::vector<std::string>{"port 0 off, disable", "port 1 off, disable", "port 2 on, block 0x1FFF",
                                      "port 3 off, disable", "port 4 off, pass 0x1FFF"}));
  EXPECT_EQ(chip(1),
            (std::vector<std::string>{"port 0 off, disable", "port 1 on, block 0x1FFF",
                                      "port 2 on, block 0x1FFF 0x00 0x01 0x10 0x11 0x12 0x13 0x14 0x1FFB",
                                      "port 3 off, disable", "port 4 off, pass 0x1FFF"}));
  EXPECT_EQ(master_of(0), "input_hdmi 1");
  EXPECT_EQ(master_of(1), "input_hdmi 3");
}

TEST_F(HalAssembly, IpMptsBuildsOneMultiplexerOnTheBoardsRoutingFeedingTheStream) {
  start(hal_init_ip_mpts);
  EXPECT_EQ(registry(),
            then({"device ip_mpts: " + kRgbRedLed + " " + kHwmon, "output_ip qel 4, ts 5, fed by tsmux 0",
                  "tsmux on it9305 0, ts 4: " + kRouting, "it9305, not brought up"},
                 kFourModules));
  EXPECT_EQ(chip(0), kStuffingOnly);
}

TEST_F(HalAssembly, IpMptsProgramsTheChipForTheServicesSwitchedOnInTheStream) {
  start(hal_init_ip_mpts);
  /* The first module's service (SID 1): the stuffing filter of its port becomes the master's. */
  enable(HAL_OUTPUT_IP, 0, 1);
  EXPECT_EQ(chip(0),
            (std::vector<std::string>{"port 0 off, disable", "port 1 off, disable", "port 2 off, disable",
                                      "port 3 off, disable", "port 4 on, block 0x1FFF"}));
  EXPECT_EQ(master_of(0), "input_hdmi 0");
  /* The fourth module's service (SID 4) joins without its PSI. */
  enable(HAL_OUTPUT_IP, 0, 4);
  EXPECT_EQ(chip(0),
            (std::vector<std::string>{
                "port 0 off, disable", "port 1 on, block 0x1FFF 0x00 0x01 0x10 0x11 0x12 0x13 0x14 0x1FFB",
                "port 2 off, disable", "port 3 off, disable", "port 4 on, block 0x1FFF"}));
  EXPECT_EQ(master_of(0), "input_hdmi 0");
}

TEST_F(HalAssembly, IpSptsStreamsItsOneInputDirectlyAndNeverProgramsTheChip) {
  start(hal_init_ip_spts);
  EXPECT_EQ(registry(), (std::vector<std::string>{
                            "device ip_spts: " + kStorageLed + " " + kThermal,
                            "output_ip qel 0, ts 1, fed by input_hdmi 0",
                            "it9305, not brought up",
                            "input_hdmi on mod_tarn_0, ts 0",
                            "mod_tarn mod_tarn_0 at 0x32",
                            "i2c i2c_0 on /dev/i2c-0",
                        }));
  const hal_it9305_t* it9305 = reinterpret_cast<hal_it9305_t*>(hal_object_by_type(HAL_IT9305, 0));
  EXPECT_EQ(it9305->it9305.endeavour.callCount, 0u);
  /* The module at 0x32 is the third place's, with SID 3. */
  enable(HAL_OUTPUT_IP, 0, 3);
  EXPECT_EQ(it9305->it9305.endeavour.callCount, 0u);
}

}  // namespace
