#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "boxroot.h"
#include "cmd_json.h"
#include "cmd_json_output_ip.h"
#include "hal_output_ip.h"
#include "hal_test_support.h"
#include "hal_ts.h"

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

std::string dump(json_t* value) {
  std::unique_ptr<char, free_deleter> text(json_dumps(value, JSON_COMPACT | JSON_PRESERVE_ORDER));
  return text ? std::string(text.get()) : std::string("<null>");
}

json_ptr parse(const std::string& text) {
  json_error_t e;
  return json_ptr(json_loads(text.c_str(), 0, &e));
}

struct taken_t {
  cmd_json_err_t err;
  std::string text; /* "<none>" when the handler left no value */
};

taken_t take(cmd_json_take_t handler, hal_object_t* object) {
  json_t* raw = NULL;
  cmd_json_err_t err = handler(object, &raw);
  json_ptr value(raw);
  return {err, value ? dump(value.get()) : std::string("<none>")};
}

std::vector<std::string> keys(const cmd_json_arg_t* args) {
  std::vector<std::string> names;
  for (; args->name != NULL; args++) {
    names.emplace_back(args->name);
    EXPECT_EQ(args->mandatory_for_set, 0) << args->name;
  }
  return names;
}

/* A directory standing in for the box, with the given box directories made. */
class BoxRoot : public HalTest {
 protected:
  std::string root;

  void SetUp() override {
    HalTest::SetUp();
    cmd_json_s_arg = NULL;
    flag_restoring = 0;
    char dir[] = "/tmp/tviXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    root = dir;
    setenv("TAVID_ROOT", root.c_str(), 1);
    char probe[BOXROOT_PATH_LEN];
    if (boxroot_init() != 0 || std::string(boxroot_path(probe, sizeof(probe), "/x")) == "/x") {
      GTEST_SKIP() << "needs the host build's box root";
    }
    for (const char* sub : {"/data", "/etc", "/etc/rc.d", "/etc/rc.d/init.d"}) {
      ASSERT_EQ(mkdir((root + sub).c_str(), 0755), 0) << sub;
    }
  }
  void TearDown() override {
    HalTest::TearDown();
    flag_restoring = 0;
    cmd_json_s_arg = NULL;
    if (!root.empty()) {
      std::string command = "rm -rf " + root;
      EXPECT_EQ(system(command.c_str()), 0);
    }
  }
  void write(const std::string& box_path, const std::string& text, int mode = 0644) {
    FILE* file = fopen((root + box_path).c_str(), "wb");
    ASSERT_NE(file, nullptr) << box_path;
    EXPECT_EQ(fwrite(text.data(), 1, text.size(), file), text.size());
    EXPECT_EQ(fclose(file), 0);
    chmod((root + box_path).c_str(), mode);
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

TEST(CmdJsonOutputIpTables, ListTheKeysInOrder) {
  using names = std::vector<std::string>;
  EXPECT_EQ(keys(cmd_json_output_ip_ext_args), (names{"dst_addr", "dst_port", "ts"}));
  EXPECT_EQ(keys(cmd_json_output_ip_dst_args), (names{"dst_addr", "dst_port"}));
  EXPECT_EQ(keys(cmd_json_output_ip_status_args), (names{"bitrate"}));
  EXPECT_EQ(cmd_json_output_ip_status_args[0].set, nullptr);
  EXPECT_EQ(cmd_json_output_ip_ext_args[0].set, cmd_json_output_ip_dst_args[0].set);
  EXPECT_EQ(cmd_json_output_ip_ext_args[1].get, cmd_json_output_ip_dst_args[1].get);
}

TEST(CmdJsonOutputIpTables, TheRowsCarryTheHandlers) {
  struct row_t {
    const char* name;
    cmd_json_put_t set;
    cmd_json_take_t get;
    cmd_json_take_t store;
  };
  const row_t rows[] = {
      {"output_ip", cmd_json_set_output_ip_ext, cmd_json_get_output_ip_ext, cmd_json_get_output_ip_ext},
      {"output_ip_dst", cmd_json_set_output_ip_dst, cmd_json_get_output_ip_dst, NULL},
      {"output_ip_ts", cmd_json_set_output_ip_ts, cmd_json_get_output_ip_ts, NULL},
      {"output_ip_services", cmd_json_set_output_ip_service, cmd_json_get_output_ip_services, NULL},
      {"output_ip_status", NULL, cmd_json_get_output_ip_status, NULL},
      {"output_ip_ifconfig", cmd_json_set_output_ip_ifconfig, cmd_json_get_output_ip_ifconfig, NULL},
  };
  for (const row_t& expected : rows) {
    const cmd_json_object_t* row = cmd_json_object_by_name(expected.name);
    ASSERT_NE(row, nullptr) << expected.name;
    EXPECT_EQ(row->set, expected.set) << expected.name;
    EXPECT_EQ(row->get, expected.get) << expected.name;
    EXPECT_EQ(row->execute, nullptr) << expected.name;
    EXPECT_EQ(row->store, expected.store) << expected.name;
  }
}

/* ---- the IP output ---- */

hal_err_t fake_set_addr(void* user, const char* text) {
  return record(user, std::string("set addr ") + text, "addr");
}
hal_err_t fake_set_port(void* user, const char* text) {
  return record(user, std::string("set port ") + text, "port");
}
hal_err_t fake_get_addr(void* user, char*, size_t size) {
  return record(user, "get addr " + std::to_string(size), "get addr");
}
hal_err_t fake_get_port(void* user, char*, size_t size) {
  return record(user, "get port " + std::to_string(size), "get port");
}
hal_err_t fake_get_bitrate(void* user, uint32_t* bitrate_kbps) {
  hal_err_t err = record(user, "get bitrate", "bitrate");
  if (err == HAL_OK) *bitrate_kbps = 12500;
  return err;
}

class CmdJsonOutputIp : public BoxRoot {
 protected:
  hal_ts_t* tsin = NULL;
  hal_output_ip_t* out = NULL;

  void SetUp() override {
    BoxRoot::SetUp();
    if (IsSkipped()) return;
    tsin = new_hal_ts();
    out = add_output();
  }
  void TearDown() override {
    BoxRoot::TearDown();
    hal_ts_delete(tsin);
  }
  /* A new output with recording driver operations, in the registry: the newest is instance 0. */
  hal_output_ip_t* add_output() {
    hal_output_ip_t* output = new_hal_output_ip(tsin);
    EXPECT_NE(output, nullptr);
    output->hal_object.user = &driver;
    output->set.s_dst_addr = fake_set_addr;
    output->set.s_dst_port = fake_set_port;
    output->get.s_dst_addr = fake_get_addr;
    output->get.s_dst_port = fake_get_port;
    output->get.bitrate_kbps = fake_get_bitrate;
    lnklist_push_node(&hal, &output->hal_object.node);
    return output;
  }
  /* A service offered on tsout as the sync leaves it: one H.264 stream, switched off. */
  hal_service_t* offer(uint16_t sid, const std::string& name) {
    hal_service_t* service = add_service(out->tsout, sid, name, streams_of({0x100}, HAL_H264, 4000));
    return service;
  }
};

TEST_F(CmdJsonOutputIp, TheDestinationGoesToTheDriverInTableOrder) {
  EXPECT_EQ(request("{\"action\":\"set\",\"object\":\"output_ip_dst\",\"args\":{\"dst_port\":\"1234\","
                    "\"output_id\":\"0\",\"dst_addr\":\"239.1.2.3\"}}"),
            "{}");
  /* The store that follows an accepted set reads the destination back. */
  EXPECT_EQ(calls,
            (std::vector<std::string>{"set addr 239.1.2.3", "set port 1234", "get addr 16", "get port 6"}));
  EXPECT_STREQ(out->settings.s_dst_addr, "239.1.2.3");
  EXPECT_STREQ(out->settings.s_dst_port, "1234");
}

TEST_F(CmdJsonOutputIp, TheDestinationIsReadBackThroughBuffersOfItsSize) {
  hal_output_ip_set_dst_addr(out, "10.0.0.1");
  hal_output_ip_set_dst_port(out, "5000");
  calls.clear();
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"output_ip_dst\",\"args\":{\"output_id\":\"0\"}}"),
            "{\"result\":{\"dst_addr\":\"10.0.0.1\",\"dst_port\":\"5000\",\"output_id\":\"0\"}}");
  EXPECT_EQ(calls, (std::vector<std::string>{"get addr 16", "get port 6"}));
}

TEST_F(CmdJsonOutputIp, AFullAddressIsKeptAndALongerOneCut) {
  EXPECT_EQ(request("{\"action\":\"set\",\"object\":\"output_ip_dst\",\"args\":{\"output_id\":\"0\","
                    "\"dst_addr\":\"239.255.255.255\"}}"),
            "{}");
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"output_ip_dst\",\"args\":{\"output_id\":\"0\"}}"),
            "{\"result\":{\"dst_addr\":\"239.255.255.255\",\"dst_port\":\"\",\"output_id\":\"0\"}}");
  calls.clear();
  EXPECT_EQ(request("{\"action\":\"set\",\"object\":\"output_ip_dst\",\"args\":{\"output_id\":\"0\","
                    "\"dst_addr\":\"239.255.255.255.1234\",\"dst_port\":\"123456\"}}"),
            "{}");
  /* The driver judges the whole text; the stored copy is cut to its buffer. */
  EXPECT_EQ(calls, (std::vector<std::string>{"set addr 239.255.255.255.1234", "set port 123456",
                                             "get addr 16", "get port 6"}));
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"output_ip_dst\",\"args\":{\"output_id\":\"0\"}}"),
            "{\"result\":{\"dst_addr\":\"239.255.255.255\",\"dst_port\":\"12345\",\"output_id\":\"0\"}}");
}

TEST_F(CmdJsonOutputIp, AnAddressThatIsNotAStringIsAnInvalidArgument) {
  for (const char* value : {"3925606659", "null", "[\"239.1.2.3\"]", "{}"}) {
    EXPECT_EQ(request(std::string("{\"action\":\"set\",\"object\":\"output_ip_dst\",\"args\":{\"output_id\":"
                                  "\"0\",\"dst_addr\":") +
                      value + "}}"),
              error("JSON command has an invalid argument (dst_addr)"))
        << value;
  }
  EXPECT_EQ(request("{\"action\":\"set\",\"object\":\"output_ip\",\"args\":{\"output_id\":\"0\","
                    "\"dst_port\":1234}}"),
            error("JSON command has an invalid argument (dst_port)"));
  EXPECT_TRUE(calls.empty());
  EXPECT_STREQ(out->settings.s_dst_addr, "");
  EXPECT_STREQ(out->settings.s_dst_port, "");
}

TEST_F(CmdJsonOutputIp, ARefusedDestinationIsUnsuccessfulAndKeepsWhatCameBefore) {
  failing = "port";
  EXPECT_EQ(request("{\"action\":\"set\",\"object\":\"output_ip_dst\",\"args\":{\"output_id\":\"0\","
                    "\"dst_addr\":\"239.1.2.3\",\"dst_port\":\"99999\"}}"),
            warning("JSON command unsuccessful (error: 13)"));
  EXPECT_STREQ(out->settings.s_dst_addr, "239.1.2.3");
  EXPECT_STREQ(out->settings.s_dst_port, "");
  failing = "get port";
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"output_ip_dst\",\"args\":{\"output_id\":\"0\"}}"),
            warning("JSON command unsuccessful (error: 13)"));
}

TEST_F(CmdJsonOutputIp, ADestinationThatIsNoTextIsAJsonError) {
  snprintf(out->settings.s_dst_addr, sizeof(out->settings.s_dst_addr), "%s", "\xff");
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"output_ip_dst\",\"args\":{\"output_id\":\"0\"}}"),
            warning("JSON error"));
  EXPECT_EQ(warnings_in(errors), (std::vector<std::string>{"cmd_json_output_ip_get_dst_addr: JSON error"}));
}

TEST_F(CmdJsonOutputIp, TheWholeOutputNestsItsTs) {
  offer(101, "One");
  hal_output_ip_set_dst_addr(out, "239.0.0.1");
  hal_output_ip_set_dst_port(out, "1234");
  EXPECT_EQ(
      request("{\"action\":\"get\",\"object\":\"output_ip\",\"args\":{\"output_id\":\"0\"}}"),
      "{\"result\":{\"dst_addr\":\"239.0.0.1\",\"dst_port\":\"1234\",\"ts\":{\"ts_tag\":\"1\",\"tsid\":\"0\","
      "\"onid\":\"0\",\"nid\":\"0\",\"private_data_specifier\":\"0\",\"network_name\":\"\","
      "\"network_version\":\"0\",\"services\":[{\"service_tag\":\"0\",\"sid\":\"101\",\"type\":\"0\","
      "\"service_name\":\"One\",\"lcn\":\"0\",\"pmt_pid\":\"0\",\"enabled\":\"0\",\"streams\":[{"
      "\"stream_tag\":\"0\",\"pid\":\"256\",\"type\":\"27\",\"bitrate\":\"4000\"}]}]},\"output_id\":\"0\"}}");
}

TEST_F(CmdJsonOutputIp, TheWholeOutputIsSetInTableOrder) {
  hal_service_t* service = offer(101, "One");
  fake_ts_identity(out->tsout);
  EXPECT_EQ(request("{\"action\":\"set\",\"object\":\"output_ip\",\"args\":{\"output_id\":\"0\",\"ts\":{"
                    "\"tsid\":\"0x10\",\"services\":[{\"service_tag\":\"0\",\"enabled\":\"1\"}]},"
                    "\"dst_port\":\"1234\",\"dst_addr\":\"239.0.0.1\"}}"),
            "{}");
  EXPECT_EQ(calls, (std::vector<std::string>{"set addr 239.0.0.1", "set port 1234", "tsid 16", "get addr 16",
                                             "get port 6"}));
  EXPECT_EQ(out->tsout->settings.tsid, 16);
  EXPECT_EQ(service->enabled, 1);
}

TEST_F(CmdJsonOutputIp, ATsThatIsNotAnObjectIsAnInvalidArgumentAfterTheDestination) {
  EXPECT_EQ(request("{\"action\":\"set\",\"object\":\"output_ip\",\"args\":{\"output_id\":\"0\","
                    "\"dst_addr\":\"239.0.0.1\",\"ts\":[]}}"),
            error("JSON command has an invalid argument (ts)"));
  EXPECT_STREQ(out->settings.s_dst_addr, "239.0.0.1");
}

TEST_F(CmdJsonOutputIp, ThePlainTsKeysComeDirectlyInTheArguments) {
  fake_ts_identity(out->tsout);
  EXPECT_EQ(request("{\"action\":\"set\",\"object\":\"output_ip_ts\",\"args\":{\"output_id\":\"0\","
                    "\"ts_tag\":\"7\",\"onid\":\"70000\",\"network_name\":\"Net\",\"services\":[]}}"),
            "{}");
  EXPECT_EQ(calls, (std::vector<std::string>{"onid 4464", "network_name Net", "get addr 16", "get port 6"}));
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"output_ip_ts\",\"args\":{\"output_id\":\"0\"}}"),
            "{\"result\":{\"ts_tag\":\"1\",\"tsid\":\"0\",\"onid\":\"4464\",\"nid\":\"0\","
            "\"private_data_specifier\":\"0\",\"network_name\":\"Net\",\"network_version\":\"0\","
            "\"output_id\":\"0\"}}");
}

TEST_F(CmdJsonOutputIp, TsHandlersWantAnObject) {
  json_ptr array = parse("[{\"tsid\":\"1\"}]");
  EXPECT_EQ(cmd_json_set_output_ip_ts(&out->hal_object, array.get()), CMD_JSON_ARG_FRMT_ERR);
  EXPECT_EQ(cmd_json_set_output_ip_service(&out->hal_object, array.get()), CMD_JSON_ARG_FRMT_ERR);
  EXPECT_EQ(cmd_json_set_output_ip_ts(&out->hal_object, NULL), CMD_JSON_ARG_FRMT_ERR);
  EXPECT_EQ(out->tsout->settings.tsid, 0);
}

TEST_F(CmdJsonOutputIp, AnOutputWithoutTsAcceptsAndProducesNothing) {
  hal_ts_t* tsout = out->tsout;
  out->tsout = NULL;
  json_ptr args = parse("{\"tsid\":\"5\",\"service_tag\":\"0\",\"sid\":\"9\"}");
  EXPECT_EQ(cmd_json_set_output_ip_ts(&out->hal_object, args.get()), CMD_JSON_OK);
  EXPECT_EQ(cmd_json_set_output_ip_service(&out->hal_object, args.get()), CMD_JSON_OK);
  taken_t ts = take(cmd_json_get_output_ip_ts, &out->hal_object);
  taken_t services = take(cmd_json_get_output_ip_services, &out->hal_object);
  out->tsout = tsout;
  EXPECT_EQ(ts.err, CMD_JSON_OK);
  EXPECT_EQ(ts.text, "<none>");
  EXPECT_EQ(services.err, CMD_JSON_OK);
  EXPECT_EQ(services.text, "<none>");
  EXPECT_EQ(tsout->settings.tsid, 0);
}

TEST_F(CmdJsonOutputIp, ServicesAreSwitchedOneByOneByTag) {
  hal_service_t* first = offer(101, "One");
  hal_service_t* second = offer(102, "Two");
  EXPECT_EQ(
      request("{\"action\":\"set\",\"object\":\"output_ip_services\",\"args\":{\"output_id\":\"0\","
              "\"service_tag\":\"1\",\"enabled\":\"1\",\"streams\":[{\"stream_tag\":\"1\",\"pid\":\"1\"}]}}"),
      "{}");
  EXPECT_EQ(first->enabled, 0);
  EXPECT_EQ(second->enabled, 1);
  EXPECT_EQ(stream_at(second, 0)->settings.pid, 0x100);
  EXPECT_EQ(
      request("{\"action\":\"get\",\"object\":\"output_ip_services\",\"args\":{\"output_id\":\"0\"}}"),
      "{\"arrayedResult\":[{\"service_tag\":\"1\",\"sid\":\"102\",\"type\":\"0\",\"service_name\":\"Two\","
      "\"lcn\":\"0\",\"pmt_pid\":\"0\",\"enabled\":\"1\",\"output_id\":\"0\"},{\"service_tag\":\"0\","
      "\"sid\":\"101\",\"type\":\"0\",\"service_name\":\"One\",\"lcn\":\"0\",\"pmt_pid\":\"0\","
      "\"enabled\":\"0\",\"output_id\":\"0\"}]}");
}

TEST_F(CmdJsonOutputIp, AServiceIsChosenByAUsableTag) {
  offer(101, "One");
  EXPECT_EQ(request("{\"action\":\"set\",\"object\":\"output_ip_services\",\"args\":{\"output_id\":\"0\","
                    "\"enabled\":\"1\"}}"),
            error("JSON command is missing a mandatory argument ((null))"));
  EXPECT_EQ(request("{\"action\":\"set\",\"object\":\"output_ip_services\",\"args\":{\"output_id\":\"0\","
                    "\"service_tag\":\"4\",\"enabled\":\"1\"}}"),
            error("JSON command argument out of bounds ((null))"));
}

TEST_F(CmdJsonOutputIp, TheStatusIsTheMeasuredBitrate) {
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"output_ip_status\",\"args\":{\"output_id\":\"0\"}}"),
            "{\"result\":{\"bitrate\":\"12500\",\"output_id\":\"0\"}}");
  EXPECT_EQ(calls, (std::vector<std::string>{"get bitrate"}));
  out->get.bitrate_kbps = NULL;
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"output_ip_status\",\"args\":{\"output_id\":\"0\"}}"),
            "{\"result\":{\"bitrate\":\"0\",\"output_id\":\"0\"}}");
  out->get.bitrate_kbps = fake_get_bitrate;
  failing = "bitrate";
  failure = HAL_QEL2IP_ERR;
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"output_ip_status\",\"args\":{\"output_id\":\"0\"}}"),
            warning("JSON command unsuccessful (error: 13)"));
}

TEST_F(CmdJsonOutputIp, TheStatusHasNoSet) {
  EXPECT_EQ(request("{\"action\":\"set\",\"object\":\"output_ip_status\",\"args\":{\"output_id\":\"0\","
                    "\"bitrate\":\"1\"}}"),
            error("JSON command has an unknown action (set)"));
}

TEST_F(CmdJsonOutputIp, AGetWithoutIdAnswersForEveryOutput) {
  hal_output_ip_t* newer = add_output();
  hal_output_ip_set_dst_port(newer, "1");
  hal_output_ip_set_dst_port(out, "2");
  calls.clear();
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"output_ip_dst\",\"args\":{}}"),
            "{\"arrayedResult\":[{\"dst_addr\":\"\",\"dst_port\":\"1\",\"output_id\":\"0\"},"
            "{\"dst_addr\":\"\",\"dst_port\":\"2\",\"output_id\":\"1\"}]}");
}

TEST_F(CmdJsonOutputIp, TheStoredRecordReplaysToTheSameSettings) {
  hal_service_t* service = offer(101, "One");
  hal_service_set_enabled(service, 1);
  hal_output_ip_set_dst_addr(out, "239.0.0.1");
  hal_output_ip_set_dst_port(out, "1234");
  hal_ts_set_nid(out->tsout, 7);
  EXPECT_EQ(request("{\"action\":\"execute\",\"object\":\"store_settings\",\"args\":{}}"), "{}");
  EXPECT_EQ(
      read("/data/settings.conf"),
      "{\"action\":\"set\",\"object\":\"output_ip\",\"args\":{\"dst_addr\":\"239.0.0.1\",\"dst_port\":"
      "\"1234\","
      "\"ts\":{\"ts_tag\":\"1\",\"tsid\":\"0\",\"onid\":\"0\",\"nid\":\"7\",\"private_data_specifier\":\"0\","
      "\"network_name\":\"\",\"network_version\":\"0\",\"services\":[{\"service_tag\":\"0\",\"sid\":\"101\","
      "\"type\":\"0\",\"service_name\":\"One\",\"lcn\":\"0\",\"pmt_pid\":\"0\",\"enabled\":\"1\",\"streams\":"
      "[{\"stream_tag\":\"0\",\"pid\":\"256\",\"type\":\"27\",\"bitrate\":\"4000\"}]}]},\"output_id\":\"0\"}}"
      "\n\r");
  hal_service_set_enabled(service, 0);
  hal_output_ip_set_dst_addr(out, "");
  hal_ts_set_nid(out->tsout, 0);
  calls.clear();
  printed_t printed = printed_by([] { EXPECT_EQ(cmd_restore_settings(NULL, NULL), CMD_JSON_OK); });
  EXPECT_EQ(printed.err, "");
  EXPECT_EQ(calls, (std::vector<std::string>{"set addr 239.0.0.1", "set port 1234"}));
  EXPECT_EQ(service->enabled, 1);
  EXPECT_EQ(out->tsout->settings.nid, 7);
}

TEST_F(CmdJsonOutputIp, AnAcceptedSetRewritesTheSettingsFile) {
  EXPECT_EQ(request("{\"action\":\"set\",\"object\":\"output_ip_dst\",\"args\":{\"output_id\":\"0\","
                    "\"dst_port\":\"5\"}}"),
            "{}");
  EXPECT_NE(read("/data/settings.conf").find("\"dst_port\":\"5\""), std::string::npos);
}

/* ---- the network-settings service ---- */

const char* const kGetRequest =
    "{\"action\":\"GET\",\"object\":\"/unified_services/ip/settings\",\"args\":{}}";
const char* const kEth0 = "{\"interface\":\"eth0\",\"ip_address\":\"192.168.0.10\",\"dhcp\":\"on\"}";
const char* const kEth1 =
    "{\"interface\":\"eth1\",\"ip_address\":\"10.0.0.2\",\"netmask\":\"255.255.255.0\",\"dhcp\":\"off\"}";

/* What the fake service does once it has read a whole request. */
enum class answer_t {
  REPLY,     /* sends its reply in one piece and hangs up */
  SILENT,    /* says nothing until the client hangs up */
  HANG_UP,   /* ends its side without a word */
  INTERRUPT, /* keeps signalling the client's thread until it hangs up */
};

void ignore_signal(int) {}

/* A stand-in for the box's network-settings service on 127.0.0.1:49998, one connection per
 * test. Until serve() it holds the port without listening, so a client finds the service down. */
class FakeSettingsService {
 public:
  FakeSettingsService() = default;
  FakeSettingsService(const FakeSettingsService&) = delete;
  FakeSettingsService& operator=(const FakeSettingsService&) = delete;
  ~FakeSettingsService() {
    if (thread_.joinable()) thread_.join();
    if (fd_ >= 0) close(fd_);
    if (lock_ >= 0) close(lock_);
  }
  /* False when the port is taken. Tests of this kind run one at a time even when run in parallel
   * processes: a port bound without listening does not keep another such test from binding it. */
  bool reserve() {
    lock_ = open("/tmp/tavid_test_port_49998.lock", O_CREAT | O_RDWR, 0666);
    if (lock_ >= 0) flock(lock_, LOCK_EX);
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(49998);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return bind(fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0;
  }
  void serve(answer_t answer, const std::string& reply = "") {
    ASSERT_EQ(listen(fd_, 1), 0);
    client_thread_ = pthread_self();
    thread_ = std::thread([this, answer, reply] { run(answer, reply); });
  }
  /* What the client sent. */
  std::string received() {
    if (thread_.joinable()) thread_.join();
    return received_;
  }

 private:
  static bool readable(int fd, int timeout_ms) {
    struct pollfd pfd = {fd, POLLIN, 0};
    return poll(&pfd, 1, timeout_ms) > 0;
  }
  /* The client sends no terminator: a request is whole once it parses. */
  void read_request(int client) {
    char buf[4096];
    while (readable(client, 2000)) {
      ssize_t n = recv(client, buf, sizeof(buf), 0);
      if (n <= 0) return;
      received_.append(buf, static_cast<size_t>(n));
      if (parse(received_)) return;
    }
  }
  static bool hung_up(int client, int timeout_ms) {
    char buf[256];
    return readable(client, timeout_ms) && recv(client, buf, sizeof(buf), 0) <= 0;
  }
  void run(answer_t answer, const std::string& reply) {
    if (!readable(fd_, 10000)) return;
    int client = accept(fd_, NULL, NULL);
    if (client < 0) return;
    read_request(client);
    switch (answer) {
      case answer_t::REPLY:
        send(client, reply.data(), reply.size(), MSG_NOSIGNAL);
        break;
      case answer_t::SILENT:
        break;
      case answer_t::HANG_UP:
        shutdown(client, SHUT_WR);
        break;
      case answer_t::INTERRUPT:
        for (int i = 0; i < 200 && !hung_up(client, 50); i++) pthread_kill(client_thread_, SIGUSR2);
        break;
    }
    /* The client hangs up first, so that the port is not left in TIME_WAIT for whoever binds it
     * next. */
    hung_up(client, 10000);
    close(client);
  }

  int lock_ = -1;
  int fd_ = -1;
  std::thread thread_;
  pthread_t client_thread_{};
  std::string received_;
};

class CmdJsonIfconfig : public BoxRoot {
 protected:
  FakeSettingsService service;

  void SetUp() override {
    BoxRoot::SetUp();
    if (IsSkipped()) return;
    if (!service.reserve()) {
      GTEST_SKIP() << "127.0.0.1:49998 is taken by another process; the network-settings tests need it free";
    }
    restart_script(0);
  }
  /* The interface restart script records its arguments and ends with `status`. */
  void restart_script(int status) {
    write("/etc/rc.d/init.d/network_eth1",
          "#!/bin/sh\necho \"$@\" >> \"$(dirname \"$0\")/network_eth1.log\"\nexit " + std::to_string(status) +
              "\n",
          0755);
  }
  std::string restarts() { return read("/etc/rc.d/init.d/network_eth1.log"); }

  /* A handler run directly, with its console output and how long it took. */
  template <typename F>
  taken_t timed(F&& f) {
    taken_t taken;
    auto start = std::chrono::steady_clock::now();
    printed_t printed = printed_by([&] { taken = f(); });
    elapsed_ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
            .count();
    errors = printed.err;
    return taken;
  }
  taken_t get() {
    return timed([] { return take(cmd_json_get_output_ip_ifconfig, NULL); });
  }
  taken_t set(const std::string& args) {
    return timed([&] {
      json_ptr value = parse(args);
      cmd_json_err_t err = cmd_json_set_output_ip_ifconfig(NULL, value.get());
      return taken_t{err, dump(value.get())};
    });
  }
  long long elapsed_ms = 0;
};

std::string in_get(const std::string& text) { return "cmd_json_get_output_ip_ifconfig: " + text; }
std::string in_set(const std::string& text) { return "cmd_json_set_output_ip_ifconfig: " + text; }

/* What the handler's work around the wait may add under valgrind or qemu-arm on a loaded machine. */
constexpr long long kSlowMs = 10000;

const std::vector<std::string> kConnectWarnings = {
    "inet_create_tcp_client_socket: Could not connect socket",
    "Could not connect to TCP command interface on localhost:49998"};

TEST_F(CmdJsonIfconfig, GetYieldsOnlyTheStreamingInterfaceWithoutItsName) {
  service.serve(answer_t::REPLY, std::string("{\"result\":[") + kEth0 + "," + kEth1 + "]}");
  taken_t got = get();
  EXPECT_EQ(got.err, CMD_JSON_OK);
  EXPECT_EQ(got.text, "{\"ip_address\":\"10.0.0.2\",\"netmask\":\"255.255.255.0\",\"dhcp\":\"off\"}");
  EXPECT_EQ(service.received(), kGetRequest);
  EXPECT_EQ(errors, "");
  EXPECT_LT(elapsed_ms, CMD_JSON_IFCONFIG_TIMEOUT_MS) << "the wait ran out";
}

TEST_F(CmdJsonIfconfig, GetThroughTheDispatcherCarriesNoId) {
  service.serve(answer_t::REPLY, std::string("{\"result\":[") + kEth1 + "]}");
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"output_ip_ifconfig\",\"args\":{}}"),
            "{\"result\":{\"ip_address\":\"10.0.0.2\",\"netmask\":\"255.255.255.0\",\"dhcp\":\"off\"}}");
}

TEST_F(CmdJsonIfconfig, GetTakesTheLastMatchAndSkipsEntriesWithoutAName) {
  service.serve(answer_t::REPLY,
                "{\"result\":[{\"interface\":\"eth1\",\"n\":\"1\"},{\"n\":\"2\"},\"eth1\",{\"interface\":5},"
                "{\"interface\":\"ETH1\"},{\"interface\":\"eth1\",\"n\":\"3\"},{\"interface\":\"eth0\"}]}");
  taken_t got = get();
  EXPECT_EQ(got.err, CMD_JSON_OK);
  EXPECT_EQ(got.text, "{\"n\":\"3\"}");
}

TEST_F(CmdJsonIfconfig, GetWithoutTheInterfaceProducesNothing) {
  service.serve(answer_t::REPLY, std::string("{\"result\":[") + kEth0 + "]}");
  taken_t got = get();
  EXPECT_EQ(got.err, CMD_JSON_OK);
  EXPECT_EQ(got.text, "<none>");
}

TEST_F(CmdJsonIfconfig, GetOfAResultThatIsNoListProducesNothing) {
  service.serve(answer_t::REPLY, std::string("{\"result\":") + kEth1 + "}");
  taken_t got = get();
  EXPECT_EQ(got.err, CMD_JSON_OK);
  EXPECT_EQ(got.text, "<none>");
}

TEST_F(CmdJsonIfconfig, GetWithNothingToReplyIsAReplyFormatWarning) {
  service.serve(answer_t::REPLY, "{\"result\":[]}");
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"output_ip_ifconfig\",\"args\":{}}"),
            warning("JSON command unsuccessful (error: 8)"));
}

TEST_F(CmdJsonIfconfig, GetWithTheServiceDownFails) {
  taken_t got = get();
  EXPECT_EQ(got.err, CMD_JSON_UNSUCCESSFUL);
  EXPECT_EQ(got.text, "<none>");
  EXPECT_EQ(warnings_in(errors),
            (std::vector<std::string>{kConnectWarnings[0], in_get(kConnectWarnings[1])}));
  EXPECT_EQ(request("{\"action\":\"get\",\"object\":\"output_ip_ifconfig\",\"args\":{}}"),
            warning("JSON command unsuccessful (error: 13)"));
}

TEST_F(CmdJsonIfconfig, GetFromAServiceThatNeverAnswersSucceedsEmptyAfterFiveSeconds) {
  service.serve(answer_t::SILENT);
  taken_t got = get();
  EXPECT_EQ(got.err, CMD_JSON_OK);
  EXPECT_EQ(got.text, "<none>");
  EXPECT_EQ(
      warnings_in(errors),
      (std::vector<std::string>{in_get("Timeout while waiting for POLL response on TCP command interface")}));
  EXPECT_GE(elapsed_ms, CMD_JSON_IFCONFIG_TIMEOUT_MS);
  EXPECT_LT(elapsed_ms, CMD_JSON_IFCONFIG_TIMEOUT_MS + kSlowMs);
  EXPECT_EQ(service.received(), kGetRequest);
}

TEST_F(CmdJsonIfconfig, GetOfGarbageIsAJsonError) {
  service.serve(answer_t::REPLY, "HTTP/1.0 404 Not Found\r\n\r\n");
  taken_t got = get();
  EXPECT_EQ(got.err, CMD_JSON_ERR);
  EXPECT_EQ(got.text, "<none>");
  EXPECT_EQ(warnings_in(errors), (std::vector<std::string>{in_get("JSON error")}));
}

TEST_F(CmdJsonIfconfig, GetFromAServiceThatHangsUpIsAJsonError) {
  service.serve(answer_t::HANG_UP);
  taken_t got = get();
  EXPECT_EQ(got.err, CMD_JSON_ERR);
  EXPECT_EQ(warnings_in(errors), (std::vector<std::string>{in_get("JSON error")}));
  EXPECT_LT(elapsed_ms, CMD_JSON_IFCONFIG_TIMEOUT_MS) << "the wait ran out";
}

TEST_F(CmdJsonIfconfig, AnInterruptedWaitIsAPollFailure) {
  struct sigaction action = {};
  struct sigaction previous;
  action.sa_handler = ignore_signal; /* no SA_RESTART: the wait ends */
  sigemptyset(&action.sa_mask);
  sigaction(SIGUSR2, &action, &previous);
  service.serve(answer_t::INTERRUPT);
  taken_t got = get();
  /* Only once the service has stopped signalling. */
  EXPECT_EQ(service.received(), kGetRequest);
  sigaction(SIGUSR2, &previous, NULL);
  EXPECT_EQ(got.err, CMD_JSON_UNSUCCESSFUL);
  EXPECT_EQ(warnings_in(errors),
            (std::vector<std::string>{in_get("Could not POLL TCP command interface for response")}));
}

TEST_F(CmdJsonIfconfig, AReplyLongerThanTheBufferIsReadOnlyAsFarAsItFits) {
  /* The answer parses within the buffer; what follows never arrives in it. */
  service.serve(answer_t::REPLY, std::string("{\"result\":[") + kEth1 + "]}" + std::string(4000, ' ') + "x");
  taken_t got = get();
  EXPECT_EQ(got.err, CMD_JSON_OK);
  EXPECT_EQ(got.text, "{\"ip_address\":\"10.0.0.2\",\"netmask\":\"255.255.255.0\",\"dhcp\":\"off\"}");
}

TEST_F(CmdJsonIfconfig, AnAnswerCutByTheBufferIsAJsonError) {
  service.serve(answer_t::REPLY,
                "{\"result\":[{\"interface\":\"eth1\",\"note\":\"" + std::string(3000, 'n') + "\"}]}");
  taken_t got = get();
  EXPECT_EQ(got.err, CMD_JSON_ERR);
  EXPECT_EQ(warnings_in(errors), (std::vector<std::string>{in_get("JSON error")}));
}

TEST_F(CmdJsonIfconfig, SetPostsTheArgumentsForTheStreamingInterfaceAndRestartsIt) {
  service.serve(answer_t::REPLY, "{\"result\":{}}");
  taken_t done = set("{\"ip_address\":\"10.0.0.9\",\"netmask\":\"255.255.255.0\"}");
  EXPECT_EQ(done.err, CMD_JSON_OK);
  EXPECT_EQ(service.received(),
            "{\"action\":\"POST\",\"object\":\"/unified_services/ip/settings\",\"args\":[{\"ip_address\":"
            "\"10.0.0.9\",\"netmask\":\"255.255.255.0\",\"interface\":\"eth1\"}]}");
  EXPECT_EQ(restarts(), "restart\n");
  EXPECT_EQ(errors, "");
}

TEST_F(CmdJsonIfconfig, SetCannotAddressAnotherInterface) {
  service.serve(answer_t::REPLY, "{\"result\":{}}");
  taken_t done = set("{\"interface\":\"eth0\",\"dhcp\":\"on\"}");
  EXPECT_EQ(done.err, CMD_JSON_OK);
  EXPECT_EQ(done.text, "{\"interface\":\"eth1\",\"dhcp\":\"on\"}");
  EXPECT_EQ(
      service.received(),
      "{\"action\":\"POST\",\"object\":\"/unified_services/ip/settings\",\"args\":[{\"interface\":\"eth1\","
      "\"dhcp\":\"on\"}]}");
}

TEST_F(CmdJsonIfconfig, SetThroughTheDispatcherRepliesEmptyAndStoresNothingOfIt) {
  service.serve(answer_t::REPLY, "{\"result\":{}}");
  EXPECT_EQ(request("{\"action\":\"set\",\"object\":\"output_ip_ifconfig\",\"args\":{\"dhcp\":\"on\"}}"),
            "{}");
  EXPECT_EQ(restarts(), "restart\n");
  EXPECT_EQ(read("/data/settings.conf"), "");
}

TEST_F(CmdJsonIfconfig, ARefusedSetFailsAndDoesNotRestart) {
  service.serve(answer_t::REPLY, "{\"result\":{\"ip_address\":\"invalid\"}}");
  EXPECT_EQ(request("{\"action\":\"set\",\"object\":\"output_ip_ifconfig\",\"args\":{\"ip_address\":\"x\"}}"),
            warning("JSON command unsuccessful (error: 13)"));
  EXPECT_EQ(restarts(), "<none>");
  EXPECT_EQ(errors, "");
}

class CmdJsonIfconfigRefusal : public CmdJsonIfconfig, public ::testing::WithParamInterface<const char*> {};

TEST_P(CmdJsonIfconfigRefusal, ASetAnswerWithoutAnEmptyResultObjectFailsAndDoesNotRestart) {
  service.serve(answer_t::REPLY, GetParam());
  taken_t done = set("{\"dhcp\":\"on\"}");
  EXPECT_EQ(done.err, CMD_JSON_UNSUCCESSFUL);
  EXPECT_EQ(errors, "");
  EXPECT_EQ(restarts(), "<none>");
}

INSTANTIATE_TEST_SUITE_P(Answers, CmdJsonIfconfigRefusal,
                         ::testing::Values("{\"result\":{\"ip_address\":\"invalid\"}}", "{\"status\":\"ok\"}",
                                           "{\"result\":[]}", "{\"result\":\"\"}", "{\"result\":null}",
                                           "[]"));

TEST_F(CmdJsonIfconfig, AFailingRestartScriptFailsTheSet) {
  restart_script(3);
  service.serve(answer_t::REPLY, "{\"result\":{}}");
  EXPECT_EQ(set("{\"dhcp\":\"on\"}").err, CMD_JSON_UNSUCCESSFUL);
  EXPECT_EQ(restarts(), "restart\n");
}

TEST_F(CmdJsonIfconfig, AMissingRestartScriptFailsTheSet) {
  ASSERT_EQ(remove((root + "/etc/rc.d/init.d/network_eth1").c_str()), 0);
  service.serve(answer_t::REPLY, "{\"result\":{}}");
  EXPECT_EQ(set("{\"dhcp\":\"on\"}").err, CMD_JSON_UNSUCCESSFUL);
}

TEST_F(CmdJsonIfconfig, SetWithTheServiceDownFails) {
  taken_t done = set("{\"dhcp\":\"on\"}");
  EXPECT_EQ(done.err, CMD_JSON_UNSUCCESSFUL);
  EXPECT_EQ(warnings_in(errors),
            (std::vector<std::string>{kConnectWarnings[0], in_set(kConnectWarnings[1])}));
  EXPECT_EQ(restarts(), "<none>");
}

TEST_F(CmdJsonIfconfig, SetToAServiceThatNeverAnswersSucceedsUnseenAfterFiveSeconds) {
  service.serve(answer_t::SILENT);
  taken_t done = set("{\"dhcp\":\"on\"}");
  EXPECT_EQ(done.err, CMD_JSON_OK);
  EXPECT_EQ(
      warnings_in(errors),
      (std::vector<std::string>{in_set("Timeout while waiting for POLL response on TCP command interface")}));
  EXPECT_GE(elapsed_ms, CMD_JSON_IFCONFIG_TIMEOUT_MS);
  EXPECT_LT(elapsed_ms, CMD_JSON_IFCONFIG_TIMEOUT_MS + kSlowMs);
  EXPECT_EQ(restarts(), "<none>");
}

TEST_F(CmdJsonIfconfig, SetAnsweredWithGarbageIsAJsonError) {
  service.serve(answer_t::REPLY, "ok");
  EXPECT_EQ(request("{\"action\":\"set\",\"object\":\"output_ip_ifconfig\",\"args\":{\"dhcp\":\"on\"}}"),
            warning("JSON error"));
  EXPECT_EQ(warnings_in(errors), (std::vector<std::string>{in_set("JSON error")}));
  EXPECT_EQ(restarts(), "<none>");
}

TEST_F(CmdJsonIfconfig, ArgumentsThatCannotCarryTheInterfaceAreAJsonError) {
  EXPECT_EQ(request("{\"action\":\"set\",\"object\":\"output_ip_ifconfig\",\"arrayedArgs\":[\"eth0\"]}"),
            warning("JSON error"));
  EXPECT_EQ(warnings_in(errors), (std::vector<std::string>{in_set("JSON error")}));
}

}  // namespace
