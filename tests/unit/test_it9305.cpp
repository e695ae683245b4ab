#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "hal_test_support.h"
#include "it9300.h"
#include "it9305.h"

namespace {

using hal_test::printed_by;
using hal_test::printed_t;
using hal_test::warnings_in;

/* A logged library call as "<call> <args...>", the chip index and unused arguments left out. */
std::string call_text(const it9300_call_entry_t& entry) {
  static const char* const names[] = {"none",    "initialize", "write", "enable",
                                      "disable", "reset",      "mode",  "add"};
  static const int arg_counts[] = {0, 1, 2, 1, 1, 1, 2, 3};
  std::ostringstream text;
  text << names[entry.call];
  for (int i = 0; i < arg_counts[entry.call]; i++) text << " 0x" << std::hex << entry.args[i];
  return text.str();
}

std::vector<std::string> calls_of(const Endeavour& endeavour) {
  std::vector<std::string> calls;
  for (uint32_t i = 0; i < endeavour.callCount && i < IT9300_CALL_LOG_SIZE; i++) {
    EXPECT_EQ(endeavour.callLog[i].chip, 0) << "call " << i;
    calls.push_back(call_text(endeavour.callLog[i]));
  }
  return calls;
}

/* The PIDs in the used entries of an input's table, as entry:pid. */
std::vector<std::string> table_of(const Endeavour& endeavour, int input) {
  std::vector<std::string> table;
  for (int entry = 0; entry < IT9300_PID_TABLE_SIZE; entry++) {
    const it9300_pid_entry_t& slot = endeavour.state[0].pidTable[input][entry];
    if (slot.used) table.push_back(std::to_string(entry) + ":" + std::to_string(slot.pid));
  }
  return table;
}

std::string read_text(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

class It9305 : public ::testing::Test {
 protected:
  void SetUp() override {
    it9300_refusal = {IT9300_CALL_NONE, 0, IT9300_OK};
    chip = static_cast<it9305_t*>(calloc(1, sizeof(it9305_t)));
    snprintf(chip->name, sizeof(chip->name), "it9305_0");
  }
  void TearDown() override {
    free(chip);
    it9300_refusal = {IT9300_CALL_NONE, 0, IT9300_OK};
  }
  /* Runs `f`; returns its warnings as "<function>: <text>". */
  template <typename F>
  std::vector<std::string> warnings_of(F&& f) {
    printed_t printed = printed_by(f);
    EXPECT_EQ(printed.out, "");
    return warnings_in(printed.err);
  }
  it9305_t* chip = nullptr;
};

/* A chip whose reset line is a pair of plain files standing in for the sysfs ones. */
class It9305Init : public It9305 {
 protected:
  void SetUp() override {
    It9305::SetUp();
    char dir_template[] = "/tmp/it9305XXXXXX";
    ASSERT_NE(mkdtemp(dir_template), nullptr);
    dir = dir_template;
    value = dir + "/value";
    direction = dir + "/direction";
    std::ofstream(value) << "1";
    std::ofstream(direction) << "in";
    reset = {value.c_str(), direction.c_str(), "196", -1};
    memset(chip, 0xA5, sizeof(*chip));
  }
  void TearDown() override {
    unlink(value.c_str());
    unlink(direction.c_str());
    rmdir(dir.c_str());
    It9305::TearDown();
  }
  it9305_err_t init(uint8_t divider = 20) {
    return it9305_init(chip, "it9305_0", 0x34, &bus, divider, reset);
  }
  /* The record as the bring-up describes the chip, before any call. */
  Endeavour described() {
    Endeavour expected;
    memset(&expected, 0, sizeof(expected));
    expected.bypassBoot = False;
    expected.bypassScript = True;
    expected.ctrlBus = BUS_I2C;
    expected.maxBusTxSize = 255;
    expected.chipCount = 1;
    expected.userData = &bus;
    expected.gator[0] = {True, 0x34, OUT_DATA_TS_SERIAL, PKT_LEN_188};
    const uint8_t ports[] = {TS_PORT_1, TS_PORT_2, TS_PORT_3, TS_PORT_4, TS_PORT_0};
    for (int i = 0; i < IT9300_TS_INPUTS; i++) expected.tsSource[0][i] = {True, TS_SERIAL, ports[i]};
    return expected;
  }
  /* The description part of the record, what the calls did cleared out. */
  static Endeavour description_of(const Endeavour& endeavour) {
    Endeavour description;
    memcpy(&description, &endeavour, sizeof(description));
    memset(&description.state, 0, sizeof(description.state));
    description.callCount = 0;
    memset(&description.callLog, 0, sizeof(description.callLog));
    return description;
  }

  std::string dir;
  std::string value;
  std::string direction;
  gpio_t reset;
  i2c_t bus = {};
};

const std::vector<std::string> pcr_writes = {"write 0xdae0 0x1", "write 0xdae1 0x1", "write 0xdae2 0x1",
                                             "write 0xdae3 0x1", "write 0xdae4 0x1"};

TEST_F(It9305Init, BringUpDescribesResetsBootsAndRestampsInThisOrder) {
  EXPECT_EQ(warnings_of([&] { EXPECT_EQ(init(), 0u); }), std::vector<std::string>{});
  EXPECT_EQ(chip->err, 0u);
  EXPECT_STREQ(chip->name, "it9305_0");
  EXPECT_EQ(chip->i2c, &bus);
  EXPECT_EQ(chip->i2c_addr, 0x34);
  EXPECT_EQ(chip->pidfilter_index, 0);
  EXPECT_STREQ(chip->reset.value, value.c_str());
  EXPECT_STREQ(chip->reset.direction, direction.c_str());
  EXPECT_STREQ(chip->reset.pinNr, "196");
  EXPECT_EQ(read_text(direction), "out");
  EXPECT_EQ(read_text(value), "1");

  Endeavour expected = described();
  EXPECT_EQ(memcmp(&expected, &chip->endeavour, offsetof(Endeavour, state)), 0);
  Endeavour description = description_of(chip->endeavour);
  EXPECT_EQ(memcmp(&expected, &description, sizeof(Endeavour)), 0);
  std::vector<std::string> expected_calls = {"initialize 0x14"};
  expected_calls.insert(expected_calls.end(), pcr_writes.begin(), pcr_writes.end());
  EXPECT_EQ(calls_of(chip->endeavour), expected_calls);

  const it9300_chip_state_t& state = chip->endeavour.state[0];
  EXPECT_EQ(state.booted, True);
  EXPECT_EQ(state.tsClockDivider, 20);
  ASSERT_EQ(state.registerCount, 5);
  for (int i = 0; i < 5; i++) {
    EXPECT_EQ(state.registers[i].address, 0xDAE0u + i);
    EXPECT_EQ(state.registers[i].value, 1);
  }
}

TEST_F(It9305Init, NameIsCutAtSixtyFourCharacters) {
  const std::string long_name(70, 'n');
  printed_by([&] { it9305_init(chip, long_name.c_str(), 0x35, &bus, 12, reset); });
  EXPECT_EQ(std::string(chip->name), long_name.substr(0, IT9305_NAME_LEN));
  EXPECT_EQ(chip->endeavour.gator[0].i2cAddr, 0x35);
  EXPECT_EQ(chip->endeavour.state[0].tsClockDivider, 12);
}

TEST_F(It9305Init, DirectionFailureStopsBeforeTheChipWithoutItsName) {
  unlink(direction.c_str());
  EXPECT_EQ(warnings_of([&] { EXPECT_EQ(init(), static_cast<it9305_err_t>(GPIO_DEV_ERR)); }),
            std::vector<std::string>{"it9305_init: Could not set direction of IT930x reset GPIO [Error: 2]"});
  EXPECT_EQ(chip->err, static_cast<it9305_err_t>(GPIO_DEV_ERR));
  EXPECT_EQ(read_text(value), "1");
  EXPECT_EQ(chip->endeavour.callCount, 0u);
  Endeavour expected = described();
  EXPECT_EQ(memcmp(&expected, &chip->endeavour, sizeof(Endeavour)), 0);
}

TEST_F(It9305Init, HardResetFailureStopsBeforeTheChip) {
  reset.value = "/dev/full";
  EXPECT_EQ(warnings_of([&] { EXPECT_EQ(init(), static_cast<it9305_err_t>(GPIO_DEV_WR_ERR)); }),
            std::vector<std::string>{"it9305_init: Could not hard reset IT930x [Error: 3]"});
  EXPECT_EQ(read_text(direction), "out");
  EXPECT_EQ(chip->endeavour.callCount, 0u);
}

TEST_F(It9305Init, RefusedBootWritesNoRegister) {
  EXPECT_EQ(warnings_of([&] { EXPECT_EQ(init(0), IT9300_ERR_CLOCK_DIVIDER); }),
            std::vector<std::string>{"it9305_init: it9305_0 - Could not initialize (error: 263)"});
  EXPECT_EQ(chip->err, IT9300_ERR_CLOCK_DIVIDER);
  EXPECT_EQ(calls_of(chip->endeavour), std::vector<std::string>{"initialize 0x0"});
  EXPECT_EQ(chip->endeavour.state[0].booted, False);
}

TEST_F(It9305Init, FailingWriteToDae2LeavesDae3AndDae4Unwritten) {
  it9300_refusal = {IT9300_CALL_WRITE_REGISTER, 0xDAE2, 77};
  EXPECT_EQ(warnings_of([&] { EXPECT_EQ(init(), 77u); }),
            std::vector<std::string>{"it9305_init: it9305_0 - Could not enable PCR restamping (error: 77)"});
  EXPECT_EQ(chip->err, 77u);
  EXPECT_EQ(calls_of(chip->endeavour),
            (std::vector<std::string>{"initialize 0x14", pcr_writes[0], pcr_writes[1], pcr_writes[2]}));
  const it9300_chip_state_t& state = chip->endeavour.state[0];
  ASSERT_EQ(state.registerCount, 2);
  EXPECT_EQ(state.registers[0].address, 0xDAE0u);
  EXPECT_EQ(state.registers[1].address, 0xDAE1u);
}

TEST_F(It9305Init, FailingFirstWriteWritesNothing) {
  it9300_refusal = {IT9300_CALL_WRITE_REGISTER, 0xDAE0, 5};
  EXPECT_EQ(warnings_of([&] { EXPECT_EQ(init(), 5u); }),
            std::vector<std::string>{"it9305_init: it9305_0 - Could not enable PCR restamping (error: 5)"});
  EXPECT_EQ(chip->endeavour.state[0].registerCount, 0);
  EXPECT_EQ(chip->endeavour.callCount, 2u);
}

TEST_F(It9305, FilterInitEmptiesTheTableThenSetsTheMode) {
  EXPECT_EQ(it9305_pidfilter_add_pid(chip, 1, 0x100), 0u);
  chip->pidfilter_index = 9;
  EXPECT_EQ(warnings_of([&] { EXPECT_EQ(it9305_pidfilter_init(chip, 1, PID_FILTER_MODE_PASS), 0u); }),
            std::vector<std::string>{});
  EXPECT_EQ(chip->pidfilter_index, 0);
  EXPECT_EQ(table_of(chip->endeavour, 1), std::vector<std::string>{});
  EXPECT_EQ(chip->endeavour.state[0].pidFilterMode[1], PID_FILTER_MODE_PASS);
  EXPECT_EQ(calls_of(chip->endeavour),
            (std::vector<std::string>{"add 0x1 0x100 0x0", "reset 0x1", "mode 0x1 0x1"}));
}

TEST_F(It9305, EntriesCountFromZeroAfterInitAndRestartWhenAnotherInputIsInitialised) {
  it9305_pidfilter_init(chip, 3, PID_FILTER_MODE_BLOCK);
  it9305_pidfilter_add_pid(chip, 3, 0x100);
  it9305_pidfilter_add_pid(chip, 3, 0x101);
  it9305_pidfilter_add_pid(chip, 3, 0x102);
  EXPECT_EQ(chip->pidfilter_index, 3);
  EXPECT_EQ(table_of(chip->endeavour, 3), (std::vector<std::string>{"0:256", "1:257", "2:258"}));
  it9305_pidfilter_init(chip, 4, PID_FILTER_MODE_BLOCK);
  EXPECT_EQ(chip->pidfilter_index, 0);
  it9305_pidfilter_add_pid(chip, 3, 0x200);
  EXPECT_EQ(table_of(chip->endeavour, 3), (std::vector<std::string>{"0:512", "1:257", "2:258"}));
  EXPECT_EQ(table_of(chip->endeavour, 4), std::vector<std::string>{});
  EXPECT_EQ(chip->endeavour.callLog[chip->endeavour.callCount - 1].args[2], 0u);
}

TEST_F(It9305, FailingAddPidStillConsumesItsEntry) {
  it9305_pidfilter_init(chip, 2, PID_FILTER_MODE_BLOCK);
  EXPECT_EQ(
      warnings_of([&] { EXPECT_EQ(it9305_pidfilter_add_pid(chip, 2, 0x2000), IT9300_ERR_PID); }),
      std::vector<std::string>{
          "it9305_pidfilter_add_pid: it9305_0 - Could not add PID <8192> to PID filter mode for TS input 2 "
          "(error: 260)"});
  EXPECT_EQ(chip->err, IT9300_ERR_PID);
  EXPECT_EQ(chip->pidfilter_index, 1);
  EXPECT_EQ(it9305_pidfilter_add_pid(chip, 2, 0x1FFF), 0u);
  EXPECT_EQ(chip->err, 0u);
  EXPECT_EQ(table_of(chip->endeavour, 2), std::vector<std::string>{"1:8191"});
}

TEST_F(It9305, EntryCounterWrapsAtEightBits) {
  chip->pidfilter_index = 255;
  EXPECT_EQ(
      warnings_of([&] { EXPECT_EQ(it9305_pidfilter_add_pid(chip, 0, 0x10), IT9300_ERR_TABLE_ENTRY); }),
      std::vector<std::string>{
          "it9305_pidfilter_add_pid: it9305_0 - Could not add PID <16> to PID filter mode for TS input 0 "
          "(error: 261)"});
  EXPECT_EQ(chip->pidfilter_index, 0);
  EXPECT_EQ(it9305_pidfilter_add_pid(chip, 0, 0x11), 0u);
  EXPECT_EQ(table_of(chip->endeavour, 0), std::vector<std::string>{"0:17"});
}

TEST_F(It9305, AddPidToAnInputPastTheLastIsRefused) {
  EXPECT_EQ(
      warnings_of([&] { EXPECT_EQ(it9305_pidfilter_add_pid(chip, 5, 0x10), IT9300_ERR_TS_INPUT); }),
      std::vector<std::string>{
          "it9305_pidfilter_add_pid: it9305_0 - Could not add PID <16> to PID filter mode for TS input 5 "
          "(error: 259)"});
  EXPECT_EQ(chip->pidfilter_index, 1);
}

TEST_F(It9305, RefusedResetLeavesTheCounterAndTheModeAlone) {
  chip->pidfilter_index = 7;
  EXPECT_EQ(warnings_of([&] {
              EXPECT_EQ(it9305_pidfilter_init(chip, 5, PID_FILTER_MODE_PASS), IT9300_ERR_TS_INPUT);
            }),
            std::vector<std::string>{
                "it9305_pidfilter_init: it9305_0 - Could not reset PID filter for TS input 5 (error: 259)"});
  EXPECT_EQ(chip->err, IT9300_ERR_TS_INPUT);
  EXPECT_EQ(chip->pidfilter_index, 7);
  EXPECT_EQ(calls_of(chip->endeavour), std::vector<std::string>{"reset 0x5"});
}

TEST_F(It9305, RefusedModeIsWarnedAfterTheTableWasEmptied) {
  chip->pidfilter_index = 7;
  const PID_FILTER_MODE unknown = static_cast<PID_FILTER_MODE>(3);
  EXPECT_EQ(
      warnings_of([&] { EXPECT_EQ(it9305_pidfilter_init(chip, 1, unknown), IT9300_ERR_FILTER_MODE); }),
      std::vector<std::string>{
          "it9305_pidfilter_init: it9305_0 - Could not set PID filter mode for TS input 1 (error: 262)"});
  EXPECT_EQ(chip->err, IT9300_ERR_FILTER_MODE);
  EXPECT_EQ(chip->pidfilter_index, 0);
  EXPECT_EQ(chip->endeavour.state[0].pidFilterMode[1], PID_FILTER_MODE_DISABLE);
}

TEST_F(It9305, AnyNonZeroFlagEnablesThePortAndZeroDisablesIt) {
  EXPECT_EQ(it9305_set_enabled(chip, 4, 7), 0u);
  EXPECT_EQ(chip->endeavour.state[0].tsPortEnabled[4], True);
  EXPECT_EQ(it9305_set_enabled(chip, 0, 1), 0u);
  EXPECT_EQ(it9305_set_enabled(chip, 4, 0), 0u);
  EXPECT_EQ(chip->endeavour.state[0].tsPortEnabled[4], False);
  EXPECT_EQ(chip->endeavour.state[0].tsPortEnabled[0], True);
  EXPECT_EQ(calls_of(chip->endeavour), (std::vector<std::string>{"enable 0x4", "enable 0x0", "disable 0x4"}));
}

TEST_F(It9305, RefusedPortsAreWarnedEachWithItsOwnText) {
  EXPECT_EQ(
      warnings_of([&] {
        EXPECT_EQ(it9305_set_enabled(chip, 5, 1), IT9300_ERR_TS_INPUT);
        EXPECT_EQ(it9305_set_enabled(chip, 255, 0), IT9300_ERR_TS_INPUT);
      }),
      (std::vector<std::string>{"it9305_set_enabled: it9305_0 - Could not enable TS 5 (error: 259)",
                                "it9305_set_enabled: it9305_0 - Could not disable TS 255 (error: 259)"}));
  EXPECT_EQ(chip->err, IT9300_ERR_TS_INPUT);
}

TEST_F(It9305, StrerrorGivesOkOrTheLibraryNumberInDecimal) {
  EXPECT_STREQ(it9305_strerror(chip), "tsmux ok");
  printed_by([&] { it9305_set_enabled(chip, 9, 1); });
  EXPECT_STREQ(it9305_strerror(chip), "tsmux error: 259");
  chip->err = 4096;
  EXPECT_STREQ(it9305_strerror(chip), "tsmux error: 4096");
  EXPECT_EQ(it9305_strerror(chip), it9305_strerror(chip));
}

TEST_F(It9305, TheChipLibraryRefusesWhatTheRecordCannotHold) {
  Endeavour& record = chip->endeavour;
  EXPECT_EQ(IT9300_initialize(&record, 0, 20), IT9300_ERR_CHIP);
  EXPECT_EQ(IT9300_enableTsPort(&record, IT9300_CHIP_MAX, 0), IT9300_ERR_CHIP);
  EXPECT_EQ(IT9300_simplePidFilter_AddPid(&record, 0, 0, IT9300_PID_MAX, IT9300_PID_TABLE_SIZE),
            IT9300_ERR_TABLE_ENTRY);
  EXPECT_EQ(IT9300_writeRegister(nullptr, 0, 0xDAE0, 1), IT9300_ERR_NO_RECORD);
  EXPECT_EQ(record.state[0].booted, False);
  EXPECT_EQ(record.state[0].tsPortEnabled[0], False);
  EXPECT_EQ(table_of(record, 0), std::vector<std::string>{});
  EXPECT_EQ(record.callCount, 3u);
}

TEST_F(It9305, TheChipLibraryKeepsEachRegisterOnceWithItsLastValue) {
  Endeavour& record = chip->endeavour;
  EXPECT_EQ(IT9300_writeRegister(&record, 0, 0xDAE1, 1), IT9300_OK);
  EXPECT_EQ(IT9300_writeRegister(&record, 0, 0xDAE0, 1), IT9300_OK);
  EXPECT_EQ(IT9300_writeRegister(&record, 0, 0xDAE1, 0), IT9300_OK);
  ASSERT_EQ(record.state[0].registerCount, 2);
  EXPECT_EQ(record.state[0].registers[0].address, 0xDAE1u);
  EXPECT_EQ(record.state[0].registers[0].value, 0);
  EXPECT_EQ(record.state[0].registers[1].address, 0xDAE0u);
  for (uint32_t reg = 2; reg < IT9300_REGISTER_MAX; reg++) IT9300_writeRegister(&record, 0, reg, 1);
  EXPECT_EQ(IT9300_writeRegister(&record, 0, 0xFFFF, 1), IT9300_ERR_REGISTER_FULL);
  EXPECT_EQ(IT9300_writeRegister(&record, 0, 0xDAE0, 0), IT9300_OK);
}

TEST_F(It9305, TheChipLibraryLogsTheFirstCallsAndCountsThemAll) {
  for (int i = 0; i < IT9300_CALL_LOG_SIZE + 2; i++) it9305_set_enabled(chip, static_cast<uint8_t>(i % 5), 1);
  EXPECT_EQ(chip->endeavour.callCount, IT9300_CALL_LOG_SIZE + 2u);
  const it9300_call_entry_t& last = chip->endeavour.callLog[IT9300_CALL_LOG_SIZE - 1];
  EXPECT_EQ(last.call, IT9300_CALL_ENABLE_TS_PORT);
  EXPECT_EQ(last.args[0], (IT9300_CALL_LOG_SIZE - 1u) % 5);
}

}  // namespace
