#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "boxroot.h"
#include "cmd_json.h"
#include "cmd_json_device.h"
#include "hal_device.h"
#include "hal_test_support.h"

namespace {

using namespace hal_test;

struct free_deleter {
  void operator()(char* p) const { free(p); }
};

std::string handle(const std::string& request) {
  std::vector<char> text(request.begin(), request.end());
  text.push_back('\0');
  std::unique_ptr<char, free_deleter> answer(cmd_json_handler(text.data()));
  return answer ? std::string(answer.get()) : std::string("<null>");
}

std::string error(const std::string& description) {
  return "{\"errorCode\":5002,\"description\":\"" + description + "\"}";
}

std::string warning(const std::string& description) {
  return "{\"warningCode\":1103,\"description\":\"" + description + "\"}";
}

const char* const kSensor = "/sys/class/hwmon/hwmon0/device/temp1_input";
const char* const kSptsDefaults =
    "{\"action\":\"set\",\"object\":\"output_ip\",\"args\":{\"output_id\":\"0\"}}\n\r";

/* The restart the daemon asks for by raising SIGUSR1. */
volatile sig_atomic_t restarts = 0;
void count_restart(int) { restarts = restarts + 1; }

std::vector<std::string> hooked;

class CmdJsonDevice : public HalTest {
 protected:
  std::string root;
  hal_device_t* device = NULL;
  struct sigaction previous;

  void SetUp() override {
    HalTest::SetUp();
    cmd_json_s_arg = NULL;
    hooked.clear();
    restarts = 0;
    struct sigaction action = {};
    action.sa_handler = count_restart;
    sigemptyset(&action.sa_mask);
    sigaction(SIGUSR1, &action, &previous);
    char dir[] = "/tmp/tvdXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    root = dir;
    setenv("TAVID_ROOT", root.c_str(), 1);
    char probe[BOXROOT_PATH_LEN];
    if (boxroot_init() != 0 || std::string(boxroot_path(probe, sizeof(probe), "/x")) == "/x") {
      GTEST_SKIP() << "needs the host build's box root";
    }
    for (const char* sub : {"/data", "/opt", "/opt/bin", "/sys", "/sys/class", "/sys/class/hwmon",
                            "/sys/class/hwmon/hwmon0", "/sys/class/hwmon/hwmon0/device"}) {
      ASSERT_EQ(mkdir((root + sub).c_str(), 0755), 0) << sub;
    }
    write(kSensor, "45000");
    write("/opt/bin/default_settings_ip_spts.conf", kSptsDefaults);
    device = new_hal_device({"/sys/class/leds/rgb_red/brightness", "/sys/class/leds/rgb_red/trigger"},
                            {kSensor}, HAL_DEVICE_RF);
    ASSERT_NE(device, nullptr);
    lnklist_push_node(&hal, &device->hal_object.node);
    flag_restoring = 0;
  }
  void TearDown() override {
    HalTest::TearDown();
    sigaction(SIGUSR1, &previous, NULL);
    flag_restoring = 0;
    cmd_json_s_arg = NULL;
    if (!root.empty()) {
      std::string command = "rm -rf " + root;
      EXPECT_EQ(system(command.c_str()), 0);
    }
  }

  void write(const std::string& box_path, const std::string& text) {
    FILE* file = fopen((root + box_path).c_str(), "wb");
    ASSERT_NE(file, nullptr) << box_path;
    EXPECT_EQ(fwrite(text.data(), 1, text.size(), file), text.size());
    EXPECT_EQ(fclose(file), 0);
  }
  std::string read(const std::string& box_path) {
    FILE* file = fopen((root + box_path).c_str(), "rb");
    if (file == NULL) return "<none>";
    std::string text;
    char buf[256];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), file)) > 0) text.append(buf, n);
    EXPECT_EQ(fclose(file), 0);
    return text;
  }
  /* A request, its warnings kept in `errors`. */
  std::string request(const std::string& text) {
    std::string answer;
    printed_t printed = printed_by([&] { answer = handle(text); });
    errors = printed.err;
    return answer;
  }
};

/* ---- the tables and the rows ---- */

TEST(CmdJsonDeviceTables, TemperatureIsReadOnlyAndOutputModeReadWrite) {
  EXPECT_STREQ(cmd_json_device_status_args[0].name, "temperature");
  EXPECT_EQ(cmd_json_device_status_args[0].set, nullptr);
  EXPECT_NE(cmd_json_device_status_args[0].get, nullptr);
  EXPECT_EQ(cmd_json_device_status_args[1].name, nullptr);
  EXPECT_STREQ(cmd_json_device_args[0].name, "output_mode");
  EXPECT_NE(cmd_json_device_args[0].set, nullptr);
  EXPECT_NE(cmd_json_device_args[0].get, nullptr);
  EXPECT_EQ(cmd_json_device_args[0].mandatory_for_set, 0);
  EXPECT_EQ(cmd_json_device_args[1].name, nullptr);
}

TEST(CmdJsonDeviceTables, TheRowsOfferGetExecuteAndStoreOnly) {
  const cmd_json_object_t* status = cmd_json_object_by_name("device_status");
  ASSERT_NE(status, nullptr);
  EXPECT_EQ(status->set, nullptr);
  EXPECT_EQ(status->get, cmd_json_get_device_status);
  EXPECT_EQ(status->execute, nullptr);
  EXPECT_EQ(status->store, nullptr);
  const cmd_json_object_t* device = cmd_json_object_by_name("device");
  ASSERT_NE(device, nullptr);
  EXPECT_EQ(device->set, nullptr);
  EXPECT_EQ(device->get, cmd_json_get_device);
  EXPECT_EQ(device->execute, cmd_json_execute_device);
  EXPECT_EQ(device->store, cmd_json_get_device);
}

/* ---- temperature ---- */

TEST_F(CmdJsonDevice, StatusReportsWholeDegrees) {
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"device_status\",\"args\":{\"device_id\":\"0\"}}"),
            "{\"result\":{\"temperature\":\"45\",\"device_id\":\"0\"}}");
  EXPECT_EQ(device->status.temperature, 45000u);
}

TEST_F(CmdJsonDevice, MillidegreesAreCutNotRounded) {
  write(kSensor, "45999");
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"device_status\",\"args\":{\"device_id\":\"0\"}}"),
            "{\"result\":{\"temperature\":\"45\",\"device_id\":\"0\"}}");
  write(kSensor, "999");
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"device_status\",\"args\":{\"device_id\":\"0\"}}"),
            "{\"result\":{\"temperature\":\"0\",\"device_id\":\"0\"}}");
}

TEST_F(CmdJsonDevice, EveryGetReadsTheSensorAfresh) {
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"device_status\",\"args\":{\"device_id\":\"0\"}}"),
            "{\"result\":{\"temperature\":\"45\",\"device_id\":\"0\"}}");
  write(kSensor, "61250\n");
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"device_status\",\"args\":{\"device_id\":\"0\"}}"),
            "{\"result\":{\"temperature\":\"61\",\"device_id\":\"0\"}}");
}

TEST_F(CmdJsonDevice, AMissingSensorIsUnsuccessful) {
  ASSERT_EQ(remove((root + kSensor).c_str()), 0);
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"device_status\",\"args\":{\"device_id\":\"0\"}}"),
            warning("JSON command unsuccessful (error: 13)"));
  EXPECT_EQ(warnings_in(errors),
            (std::vector<std::string>{"hal_device_update_temperature: Could not open temp sensor..."}));
}

TEST_F(CmdJsonDevice, AGetWithoutIdAnswersForTheOneDevice) {
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"device_status\",\"args\":{}}"),
            "{\"arrayedResult\":[{\"temperature\":\"45\",\"device_id\":\"0\"}]}");
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"device\",\"args\":{\"device_id\":\"1\"}}"),
            "{\"arrayedResult\":[{\"output_mode\":\"rf\",\"device_id\":\"0\"}]}");
}

TEST_F(CmdJsonDevice, StatusHasNoSet) {
  EXPECT_EQ(request("{\"action\":\"set\",\"object\":\"device_status\",\"args\":{\"device_id\":\"0\"}}"),
            error("JSON command has an unknown action (set)"));
}

/* ---- output mode ---- */

TEST_F(CmdJsonDevice, TheModeIsReportedByName) {
  const std::vector<std::pair<hal_device_output_mode_t, std::string>> modes = {
      {HAL_DEVICE_RF, "rf"}, {HAL_DEVICE_IP_SPTS, "ip_spts"}, {HAL_DEVICE_IP_MPTS, "ip_mpts"}};
  for (const auto& mode : modes) {
    device->settings.output_mode = mode.first;
    EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"device\",\"args\":{\"device_id\":\"0\"}}"),
              "{\"result\":{\"output_mode\":\"" + mode.second + "\",\"device_id\":\"0\"}}");
  }
}

TEST_F(CmdJsonDevice, AModeOutsideTheVocabularyIsOutOfBounds) {
  device->settings.output_mode = static_cast<hal_device_output_mode_t>(3);
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"device\",\"args\":{\"device_id\":\"0\"}}"),
            error("JSON command argument out of bounds (output_mode)"));
}

hal_err_t hook_get_mode(void*, hal_device_output_mode_t* mode) {
  hooked.emplace_back("get");
  *mode = HAL_DEVICE_IP_MPTS;
  return HAL_OK;
}

hal_err_t hook_get_mode_fails(void*, hal_device_output_mode_t*) {
  hooked.emplace_back("get");
  return HAL_ERR;
}

TEST_F(CmdJsonDevice, TheGetHookRefreshesTheMode) {
  device->get.output_mode = hook_get_mode;
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"device\",\"args\":{\"device_id\":\"0\"}}"),
            "{\"result\":{\"output_mode\":\"ip_mpts\",\"device_id\":\"0\"}}");
  device->get.output_mode = hook_get_mode_fails;
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"device\",\"args\":{\"device_id\":\"0\"}}"),
            warning("JSON command unsuccessful (error: 13)"));
  EXPECT_EQ(hooked, (std::vector<std::string>{"get", "get"}));
}

TEST_F(CmdJsonDevice, TheModeCannotBeSet) {
  EXPECT_EQ(request("{\"action\":\"set\",\"object\":\"device\",\"args\":{\"device_id\":\"0\","
                    "\"output_mode\":\"ip_spts\"}}"),
            error("JSON command has an unknown action (set)"));
  EXPECT_EQ(device->settings.output_mode, HAL_DEVICE_RF);
  EXPECT_EQ(restarts, 0);
  EXPECT_EQ(read("/data/settings.conf"), "<none>");
}

TEST_F(CmdJsonDevice, ModeNamesAreExact) {
  for (const char* name : {"RF", "Rf", "ip-spts", "IP_MPTS", "", " rf"}) {
    EXPECT_EQ(
        request(std::string("{\"action\":\"execute\",\"object\":\"device\",\"args\":{\"device_id\":\"0\","
                            "\"output_mode\":\"") +
                name + "\"}}"),
        error("JSON command argument out of bounds (output_mode)"))
        << name;
  }
  EXPECT_EQ(device->settings.output_mode, HAL_DEVICE_RF);
  EXPECT_EQ(restarts, 0);
}

TEST_F(CmdJsonDevice, AModeThatIsNotAStringIsAnInvalidArgument) {
  EXPECT_EQ(request("{\"action\":\"execute\",\"object\":\"device\",\"args\":{\"device_id\":\"0\","
                    "\"output_mode\":2}}"),
            error("JSON command has an invalid argument (output_mode)"));
  EXPECT_EQ(device->settings.output_mode, HAL_DEVICE_RF);
}

TEST_F(CmdJsonDevice, ExecutingTheCurrentModeChangesNothing) {
  EXPECT_EQ(request("{\"action\":\"execute\",\"object\":\"device\",\"args\":{\"device_id\":\"0\","
                    "\"output_mode\":\"rf\"}}"),
            "{}");
  EXPECT_EQ(device->settings.output_mode, HAL_DEVICE_RF);
  EXPECT_EQ(restarts, 0);
  EXPECT_EQ(read("/data/settings.conf"), "<none>");
  EXPECT_EQ(errors, "");
}

TEST_F(CmdJsonDevice, ExecutingAnotherModeCopiesItsDefaultsAndRestarts) {
  EXPECT_EQ(request("{\"action\":\"execute\",\"object\":\"device\",\"args\":{\"device_id\":\"0\","
                    "\"output_mode\":\"ip_spts\"}}"),
            "{}");
  EXPECT_EQ(restarts, 1);
  EXPECT_EQ(device->settings.output_mode, HAL_DEVICE_IP_SPTS);
  /* An execute stores nothing: the file holds the new mode's defaults until the restart. */
  EXPECT_EQ(read("/data/settings.conf"), kSptsDefaults);
}

TEST_F(CmdJsonDevice, AFailedCopyKeepsTheModeAndDoesNotRestart) {
  write("/data/settings.conf", "old");
  EXPECT_EQ(request("{\"action\":\"execute\",\"object\":\"device\",\"args\":{\"device_id\":\"0\","
                    "\"output_mode\":\"ip_mpts\"}}"),
            warning("JSON command unsuccessful (error: 13)"));
  EXPECT_EQ(restarts, 0);
  EXPECT_EQ(device->settings.output_mode, HAL_DEVICE_RF);
  EXPECT_EQ(read("/data/settings.conf"), "old");
}

hal_err_t hook_set_mode(void*, hal_device_output_mode_t mode) {
  hooked.push_back("set " + std::to_string(static_cast<int>(mode)));
  return mode == HAL_DEVICE_IP_MPTS ? HAL_ERR : HAL_OK;
}

TEST_F(CmdJsonDevice, TheSetHookIsAskedFirst) {
  device->set.output_mode = hook_set_mode;
  EXPECT_EQ(request("{\"action\":\"execute\",\"object\":\"device\",\"args\":{\"device_id\":\"0\","
                    "\"output_mode\":\"ip_mpts\"}}"),
            warning("JSON command unsuccessful (error: 13)"));
  EXPECT_EQ(restarts, 0);
  EXPECT_EQ(read("/data/settings.conf"), "<none>");
  EXPECT_EQ(request("{\"action\":\"execute\",\"object\":\"device\",\"args\":{\"device_id\":\"0\","
                    "\"output_mode\":\"ip_spts\"}}"),
            "{}");
  EXPECT_EQ(hooked, (std::vector<std::string>{"set 1", "set 0"}));
  EXPECT_EQ(restarts, 1);
}

/* ---- the settings file ---- */

TEST_F(CmdJsonDevice, TheStoredRecordHoldsTheMode) {
  EXPECT_EQ(request("{\"action\":\"execute\",\"object\":\"store_settings\",\"args\":{}}"), "{}");
  EXPECT_EQ(
      read("/data/settings.conf"),
      "{\"action\":\"set\",\"object\":\"device\",\"args\":{\"output_mode\":\"rf\",\"device_id\":\"0\"}}\n\r");
}

TEST_F(CmdJsonDevice, TheStoredRecordIsRefusedOnRestore) {
  device->settings.output_mode = HAL_DEVICE_IP_SPTS;
  ASSERT_EQ(cmd_store_settings(NULL, NULL), CMD_JSON_OK);
  device->settings.output_mode = HAL_DEVICE_RF;
  printed_t printed = printed_by([] { EXPECT_EQ(cmd_restore_settings(NULL, NULL), CMD_JSON_OK); });
  EXPECT_EQ(warnings_in(printed.err),
            (std::vector<std::string>{"cmd_restore_settings: Could not restore: "
                                      "{\"action\":\"set\",\"object\":\"device\",\"args\":{\"output_mode\":"
                                      "\"ip_spts\",\"device_id\":\"0\"}}"}));
  EXPECT_EQ(device->settings.output_mode, HAL_DEVICE_RF);
  EXPECT_EQ(restarts, 0);
}

}  // namespace
