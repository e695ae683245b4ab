#include <gtest/gtest.h>
#include <poll.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "dbg.h"
#include "hal.h"
#include "hal_i2c.h"
#include "hal_input_hdmi.h"
#include "hal_mod_tarn.h"
#include "hal_output_rf.h"
#include "hal_test_support.h"
#include "hal_ts.h"
#include "mod_tarn.h"

namespace {

using namespace hal_test;

typedef std::vector<uint8_t> bytes_t;
typedef std::vector<std::string> lines_t;

const uint8_t MODULE = 0x30;

bytes_t be16(uint16_t value) { return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)}; }
bytes_t be32(uint32_t value) {
  return {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
          static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}
bytes_t text(const std::string& value) { return {value.begin(), value.end()}; }
bytes_t join(std::initializer_list<bytes_t> parts) {
  bytes_t all;
  for (const bytes_t& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

/* A command frame as the module receives it. */
bytes_t cmd(uint8_t code, const bytes_t& payload = {}) {
  bytes_t frame{'#', code, static_cast<uint8_t>(payload.size())};
  frame.insert(frame.end(), payload.begin(), payload.end());
  frame.push_back('\r');
  return frame;
}

/* A slot-addressed command: the slot byte, then the value. */
bytes_t slot_cmd(uint8_t code, uint8_t slot, const bytes_t& value) {
  bytes_t payload{slot};
  payload.insert(payload.end(), value.begin(), value.end());
  return cmd(code, payload);
}

/* The factory state of the emulated module: the reply payload of every get it answers. */
const uint16_t PMT_PID = 0x1000, VIDEO_PID = 0x0100, AUDIO_PID = 0x0101, SID = 0x0101;
const uint32_t FREQ_KHZ = 474000; /* in the band whose level offset is 5 dB */

std::map<uint8_t, bytes_t> factory() {
  return {
      {0xFF, {0x00, 0x00, 'A', 1, 2, 3}},
      {0xFE, join({{1}, be16(1080), {'p', 50}, be16(23751), {1}})},
      {0x81, {MOD_TARN_DVB_C}},
      {0x82, {0x01}}, /* -4 dBm at FREQ_KHZ */
      {0x83, be32(FREQ_KHZ)},
      {0x84, {8}},
      {0x85, be16(6900)},
      {0x86, {MOD_TARN_256QAM}},
      {0x87, {MOD_TARN_1_8}},
      {0x88, {MOD_TARN_3_4}},
      {0x89, {MOD_TARN_8K}},
      {0x8A, {MOD_TARN_SINGLE_CARRIER}},
      {0x8B, {MOD_TARN_INTLV_720}},
      {0x8C, {MOD_TARN_SYNC_945}},
      {0x8E, be16(8000)},
      {0x8F, {12}},
      {0x90, {MOD_TARN_AAC}},
      {0x91, be16(192)},
      {0x92, be16(SID)},
      {0x93, be16(0x0011)},
      {0x94, be16(0x2102)},
      {0x95, be16(0x3003)},
      {0x96, be32(0x00000029)},
      {0x97, be16(7)},
      {0x98, text("HDMI 1")},
      {0x99, text("tavid net")},
      {0x9A, {4}},
      {0x9B, be16(PMT_PID)},
      {0x9C, be16(VIDEO_PID)},
      {0x9D, be16(AUDIO_PID)},
      {0xE1, {0xFE, 0x03}},
      {0xEA, {1}},
  };
}

/* One encoder/modulator module alone on a simulated bus, served by its own thread. It keeps what
 * set commands stage and answers get commands with it, starting from the factory state; slot and
 * debug-code commands are kept per slot or code. It records every command frame it receives. A
 * code can be made to answer "command unknown" (error byte 2) or another error byte, and the
 * whole firmware can be made to know no command at all. */
class FakeModule {
 public:
  FakeModule() : values_(keyed(factory())) {
    char dir_template[] = "/tmp/modXXXXXX";
    if (mkdtemp(dir_template) == NULL) return;
    dir_ = dir_template;
    path_ = dir_ + "/bus";
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path_.c_str(), sizeof(addr.sun_path) - 1);
    ready_ = bind(listen_fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0 &&
             listen(listen_fd_, 4) == 0 && pipe(wake_) == 0;
    if (ready_) thread_ = std::thread(&FakeModule::run, this);
  }

  ~FakeModule() {
    if (ready_) {
      const char stop = 's';
      EXPECT_EQ(write(wake_[1], &stop, 1), 1);
      thread_.join();
      close(wake_[0]);
      close(wake_[1]);
    }
    if (listen_fd_ >= 0) close(listen_fd_);
    if (!dir_.empty()) {
      unlink(path_.c_str());
      rmdir(dir_.c_str());
    }
  }

  FakeModule(const FakeModule&) = delete;
  FakeModule& operator=(const FakeModule&) = delete;

  bool ready() const { return ready_; }
  const char* path() const { return path_.c_str(); }

  /* What a get with `code` answers. */
  void hold(uint8_t code, const bytes_t& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    values_[{code, -1}] = value;
  }
  void answer_error(uint8_t code, uint8_t error_byte) {
    std::lock_guard<std::mutex> lock(mutex_);
    errors_[code] = error_byte;
  }
  void know_nothing() {
    std::lock_guard<std::mutex> lock(mutex_);
    knows_nothing_ = true;
  }

  std::vector<bytes_t> commands() {
    std::lock_guard<std::mutex> lock(mutex_);
    return commands_;
  }
  std::vector<uint8_t> codes() {
    std::vector<uint8_t> found;
    for (const bytes_t& frame : commands()) found.push_back(frame[1]);
    return found;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    commands_.clear();
  }

 private:
  struct value_key_t {
    uint8_t code;
    int slot;
    bool operator<(const value_key_t& other) const {
      return code != other.code ? code < other.code : slot < other.slot;
    }
  };

  /* The extra-service commands and the debug codes are kept per slot (or code). */
  static bool slotted(uint8_t code) {
    const uint8_t set_code = code & 0x7F;
    return (set_code >= 0x62 && set_code <= 0x69) || set_code == 0x6B;
  }

  bool wait_readable(int fd) {
    struct pollfd fds[2] = {{fd, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    while (poll(fds, 2, -1) < 0) {
    }
    return (fds[1].revents & POLLIN) == 0;
  }

  bool recv_exact(int fd, uint8_t* data, size_t size) {
    while (size > 0) {
      if (!wait_readable(fd)) return false;
      const ssize_t got = recv(fd, data, size, 0);
      if (got <= 0) return false;
      data += got;
      size -= static_cast<size_t>(got);
    }
    return true;
  }

  static void send_bytes(int fd, const bytes_t& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
      const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) return;
      sent += static_cast<size_t>(n);
    }
  }

  void run() {
    while (wait_readable(listen_fd_)) {
      const int conn = accept(listen_fd_, NULL, NULL);
      if (conn < 0) continue;
      bytes_t reply;
      while (serve(conn, &reply)) {
      }
      close(conn);
    }
  }

  /* One transfer: a command, the wait byte, or the read of the reply to the last command. */
  bool serve(int conn, bytes_t* reply) {
    uint8_t header[4];
    if (!recv_exact(conn, header, sizeof(header))) return false;
    const size_t len = static_cast<size_t>(header[2]) << 8 | header[3];
    bytes_t data(len);
    if (header[0] == 'W' && !recv_exact(conn, data.data(), len)) return false;
    if (header[1] != MODULE) {
      send_bytes(conn, {0x01});
      return true;
    }
    bytes_t answer{0x00};
    if (header[0] == 'R') {
      bytes_t padded = *reply;
      padded.resize(len, 0x00);
      answer.insert(answer.end(), padded.begin(), padded.end());
    } else if (!(len == 1 && data[0] == 0x00)) {
      *reply = execute(data);
    }
    send_bytes(conn, answer);
    return true;
  }

  static bytes_t reply_frame(uint8_t code, uint8_t error_byte, const bytes_t& payload = {}) {
    bytes_t frame{'#', code, error_byte, static_cast<uint8_t>(payload.size())};
    frame.insert(frame.end(), payload.begin(), payload.end());
    frame.push_back('\r');
    return frame;
  }

  bytes_t execute(const bytes_t& frame) {
    std::lock_guard<std::mutex> lock(mutex_);
    commands_.push_back(frame);
    const uint8_t code = frame[1];
    if (knows_nothing_) return reply_frame(code, 2);
    if (errors_.count(code) != 0) return reply_frame(code, errors_[code]);
    bytes_t payload(frame.begin() + 3, frame.begin() + 3 + frame[2]);
    int slot = -1;
    if (slotted(code) && !payload.empty()) {
      slot = payload[0];
      payload.erase(payload.begin());
    }
    if (code & 0x80) return reply_frame(code, 0, values_[{code, slot}]);
    if (code == MOD_TARN_CMD_SET_CAL) payload.erase(payload.begin()); /* the enable flag is not read back */
    values_[{static_cast<uint8_t>(code | 0x80), slot}] = payload;
    return reply_frame(code, 0);
  }

  std::string dir_;
  std::string path_;
  int listen_fd_ = -1;
  int wake_[2] = {-1, -1};
  bool ready_ = false;
  std::thread thread_;

  std::mutex mutex_;
  std::map<value_key_t, bytes_t> values_;
  std::map<uint8_t, uint8_t> errors_;
  bool knows_nothing_ = false;
  std::vector<bytes_t> commands_;

  static std::map<value_key_t, bytes_t> keyed(const std::map<uint8_t, bytes_t>& plain) {
    std::map<value_key_t, bytes_t> all;
    for (const auto& entry : plain) all[{entry.first, -1}] = entry.second;
    return all;
  }
};

/* ---- fixture ---- */

/* A module object on the emulated module, registered so that the registry's clean-up deletes it
 * and everything a test makes on it. */
class HalModTarn : public HalTest {
 protected:
  void SetUp() override {
    HalTest::SetUp();
    ASSERT_TRUE(module_.ready());
    hal_i2c_ = keep(new_hal_i2c("i2c_0", module_.path()));
    ASSERT_NE(hal_i2c_, nullptr);
    mod_ = keep(new_hal_mod_tarn("mod_tarn_0", MODULE, hal_i2c_));
    ASSERT_NE(mod_, nullptr);
    module_.clear();
  }

  template <typename T>
  T* keep(T* object) {
    if (object != nullptr) lnklist_push_node(&hal, &object->hal_object.node);
    return object;
  }

  /* Runs an operation with the console captured in printed_; returns its result. */
  template <typename F>
  auto run(F&& f) {
    decltype(f()) result{};
    printed_ = printed_by([&] { result = f(); });
    return result;
  }

  /* Constructors, their output kept in printed_. */
  hal_input_hdmi_t* new_input() {
    return keep(run([this] { return new_hal_mod_tarn_input_hdmi(mod_); }));
  }
  hal_output_rf_t* new_output(hal_ts_t* tsin) {
    return keep(run([this, tsin] { return new_hal_mod_tarn_output_rf(mod_, tsin); }));
  }

  lines_t warnings() const { return warnings_in(printed_.err); }
  lines_t messages() const { return messages_in(printed_.out); }

  FakeModule module_;
  hal_i2c_t* hal_i2c_ = nullptr;
  hal_mod_tarn_t* mod_ = nullptr;
  printed_t printed_;
};

std::vector<bytes_t> gets(std::initializer_list<uint8_t> codes) {
  std::vector<bytes_t> queries;
  for (uint8_t code : codes) queries.push_back(cmd(code));
  return queries;
}

std::string driver_warning(const std::string& func, const std::string& text) {
  return func + ": mod_tarn_0 - " + text;
}

/* ---- translations ---- */

TEST(HalModTarnTranslation, OnlyDoneAndUnknownCommandsCountAsSuccess) {
  EXPECT_EQ(hal_translate_mod_tarn_err(MOD_TARN_OK), HAL_OK);
  EXPECT_EQ(hal_translate_mod_tarn_err(MOD_TARN_CMD_UNKNOWN), HAL_OK);
  for (mod_tarn_err_t err : {MOD_TARN_I2C_ERR, MOD_TARN_CMD_ERR, MOD_TARN_CMD_INVLD, MOD_TARN_CMD_TIMEOUT,
                             MOD_TARN_CMD_OOB, MOD_TARN_RPL_INVLD, static_cast<mod_tarn_err_t>(9)}) {
    EXPECT_EQ(hal_translate_mod_tarn_err(err), HAL_MOD_TARN_ERR) << err;
  }
}

static_assert(hal_to_mod_tarn_stream_type(HAL_AAC) == MOD_TARN_AAC, "usable at compile time");
static_assert(mod_tarn_to_hal_stream_type(MOD_TARN_AAC) == HAL_AAC, "usable at compile time");

TEST(HalModTarnTranslation, StreamTypesToTheModuleFallBackToMpeg2Audio) {
  EXPECT_EQ(hal_to_mod_tarn_stream_type(HAL_AAC), MOD_TARN_AAC);
  EXPECT_EQ(hal_to_mod_tarn_stream_type(HAL_H264), MOD_TARN_H264);
  EXPECT_EQ(hal_to_mod_tarn_stream_type(HAL_MPEG2), MOD_TARN_MPEG2);
  EXPECT_EQ(hal_to_mod_tarn_stream_type(HAL_STREAM_TYPE_UNKNOWN), MOD_TARN_MPEG2);
  EXPECT_EQ(hal_to_mod_tarn_stream_type(static_cast<hal_stream_type_t>(2)), MOD_TARN_MPEG2);
}

TEST(HalModTarnTranslation, StreamTypesFromTheModuleFallBackToUnknown) {
  EXPECT_EQ(mod_tarn_to_hal_stream_type(MOD_TARN_MPEG2), HAL_MPEG2);
  EXPECT_EQ(mod_tarn_to_hal_stream_type(MOD_TARN_H264), HAL_H264);
  EXPECT_EQ(mod_tarn_to_hal_stream_type(MOD_TARN_AAC), HAL_AAC);
  EXPECT_EQ(mod_tarn_to_hal_stream_type(static_cast<mod_tarn_stream_type_t>(4)), HAL_STREAM_TYPE_UNKNOWN);
  EXPECT_EQ(mod_tarn_to_hal_stream_type(static_cast<mod_tarn_stream_type_t>(15)), HAL_STREAM_TYPE_UNKNOWN);
}

template <typename H, typename M>
void expect_by_value(M (*to_mod)(H), H (*to_hal)(M), std::initializer_list<int> values) {
  for (int value : values) {
    EXPECT_EQ(static_cast<int>(to_mod(static_cast<H>(value))), value);
    EXPECT_EQ(static_cast<int>(to_hal(static_cast<M>(value))), value);
  }
}

/* Every enumerator, and a value that is none, passes unchanged both ways. */
TEST(HalModTarnTranslation, ModulationEnumerationsPassByValue) {
  expect_by_value(hal_to_mod_tarn_output_type, mod_tarn_to_hal_output_type, {1, 2, 4, 8, 16, 32, 64});
  expect_by_value(hal_to_mod_tarn_constellation, mod_tarn_to_hal_constellation,
                  {2, 3, 4, 5, 6, 7, 8, 18, 34, 99});
  expect_by_value(hal_to_mod_tarn_guardinterval, mod_tarn_to_hal_guardinterval, {0, 1, 2, 3, 4});
  expect_by_value(hal_to_mod_tarn_coderate, mod_tarn_to_hal_coderate, {0, 1, 2, 3, 4, 5, 6, 7, 8});
  expect_by_value(hal_to_mod_tarn_fftmode, mod_tarn_to_hal_fftmode, {0, 1, 2, 3});
  expect_by_value(hal_to_mod_tarn_carriertype, mod_tarn_to_hal_carriertype, {0, 1, 2});
  expect_by_value(hal_to_mod_tarn_interleave, mod_tarn_to_hal_interleave, {0, 1, 2, 3});
  expect_by_value(hal_to_mod_tarn_syncframe, mod_tarn_to_hal_syncframe, {0, 1, 2, 3});
}

/* ---- the module object ---- */

TEST_F(HalModTarn, ModuleObjectOwnsItsDriver) {
  EXPECT_EQ(mod_->hal_object.type, HAL_MOD_TARN);
  EXPECT_EQ(mod_->hal_object.user, &mod_->mod_tarn);
  EXPECT_EQ(mod_->hal_object.strerror, hal_mod_tarn_strerror);
  EXPECT_EQ(mod_->hal_object.delete_, delete_hal_mod_tarn);
  EXPECT_EQ(mod_->hal_object.err, HAL_OK);
  EXPECT_STREQ(mod_->mod_tarn.name, "mod_tarn_0");
  EXPECT_EQ(mod_->mod_tarn.i2c, &hal_i2c_->i2c);
  EXPECT_EQ(mod_->mod_tarn.i2c_addr, MODULE);
  EXPECT_EQ(mod_->mod_tarn.level_offset_below_500, 5);
  EXPECT_EQ(mod_->mod_tarn.level_offset_between_500_and_1000, 8);
  EXPECT_EQ(mod_->mod_tarn.level_offset_std, 10);
  EXPECT_EQ(mod_->mod_tarn.info.sw_version, (uint32_t{'A'} << 24) | (1u << 16) | (2u << 8) | 3u);
  EXPECT_STREQ(hal_mod_tarn_strerror(&mod_->hal_object), "hdmi ok");
}

TEST_F(HalModTarn, CreatingTheModuleObjectAsksOnlyForTheFirmwareVersion) {
  hal_mod_tarn_t* other = keep(run([this] { return new_hal_mod_tarn("mod_tarn_1", MODULE, hal_i2c_); }));
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(module_.commands(), gets({0xFF}));
  EXPECT_STREQ(other->mod_tarn.name, "mod_tarn_1");
  EXPECT_EQ(printed_.err, "");
}

/* ---- construction ---- */

TEST_F(HalModTarn, InputReadsTheModuleStreamsServiceTsAndEncoderInThatOrder) {
  hal_input_hdmi_t* hdmi = new_input();
  ASSERT_NE(hdmi, nullptr);
  EXPECT_EQ(module_.commands(), gets({0x9D, 0x90, 0x91,                   /* audio stream */
                                      0x9C, 0x8E,                         /* video stream */
                                      0x92, 0x98, 0x97, 0x9B,             /* service */
                                      0x93, 0x94, 0x95, 0x96, 0x99, 0x9A, /* TS */
                                      0x8E, 0x8F, 0x91}));                /* encoder */
  EXPECT_EQ(printed_.err, "");
}

TEST_F(HalModTarn, InputIsBoundToTheModuleAndStartsWithItsValues) {
  hal_input_hdmi_t* hdmi = new_input();
  ASSERT_NE(hdmi, nullptr);
  EXPECT_EQ(hdmi->hal_object.type, HAL_INPUT_HDMI);
  EXPECT_EQ(hdmi->hal_object.user, mod_);
  EXPECT_EQ(hdmi->hal_object.strerror, hal_mod_tarn_strerror);
  EXPECT_EQ(hdmi->hal_object.delete_, delete_hal_mod_tarn_input_hdmi);
  EXPECT_EQ(hdmi->apply, hal_mod_tarn_apply);
  EXPECT_EQ(hdmi->settings.video_bitrate_kbps, 8000);
  EXPECT_EQ(hdmi->settings.video_gopsize, 12);
  EXPECT_EQ(hdmi->settings.audio_bitrate_kbps, 192);

  hal_ts_t* ts = hdmi->tsout;
  ASSERT_NE(ts, nullptr);
  EXPECT_EQ(ts->tag, 0u);
  EXPECT_EQ(ts->hal_object.user, mod_);
  EXPECT_EQ(ts->hal_object.strerror, hal_mod_tarn_strerror);
  EXPECT_EQ(ts->sync.psi, hal_mod_tarn_sync_psi);
  EXPECT_EQ(ts->settings.tsid, 0x0011);
  EXPECT_EQ(ts->settings.onid, 0x2102);
  EXPECT_EQ(ts->settings.nid, 0x3003);
  EXPECT_EQ(ts->settings.private_data_specifier, 0x29u);
  EXPECT_STREQ(ts->settings.network_name, "tavid net");
  EXPECT_EQ(ts->settings.network_version, 4);

  ASSERT_EQ(ts->service_list.node_count, 1u);
  hal_service_t* service = service_at(ts, 0);
  EXPECT_EQ(service->tag, 0u);
  EXPECT_EQ(service->hal_object.user, mod_);
  EXPECT_EQ(service->hal_object.strerror, hal_mod_tarn_strerror);
  EXPECT_EQ(service->settings.sid, SID);
  EXPECT_EQ(service->settings.type, 1);
  EXPECT_STREQ(service->settings.service_name, "HDMI 1");
  EXPECT_EQ(service->settings.lcn, 7);
  EXPECT_EQ(service->settings.pmt_pid, PMT_PID);
  EXPECT_EQ(service->enabled, 0);
  EXPECT_EQ(service->set.enabled, nullptr);
  EXPECT_EQ(service->get.enabled, nullptr);

  /* The audio stream is made first; the newest stands first in the list. */
  ASSERT_EQ(service->stream_list.node_count, 2u);
  hal_stream_t* video = stream_at(service, 0);
  hal_stream_t* audio_stream = stream_at(service, 1);
  EXPECT_EQ(audio_stream->tag, 0u);
  EXPECT_EQ(audio_stream->settings.pid, AUDIO_PID);
  EXPECT_EQ(audio_stream->settings.type, HAL_AAC);
  EXPECT_EQ(audio_stream->settings.bitrate_kbps, 192);
  EXPECT_EQ(video->tag, 1u);
  EXPECT_EQ(video->settings.pid, VIDEO_PID);
  EXPECT_EQ(video->settings.type, HAL_H264);
  EXPECT_EQ(video->settings.bitrate_kbps, 8000);
  for (hal_stream_t* stream : {audio_stream, video}) {
    EXPECT_EQ(stream->hal_object.user, mod_);
    EXPECT_EQ(stream->hal_object.strerror, hal_mod_tarn_strerror);
  }
}

TEST_F(HalModTarn, OutputReadsTheModulatorWithTheLevelAtTheModuleFrequency) {
  hal_ts_t* tsin = new_hal_ts();
  hal_output_rf_t* rf = new_output(tsin);
  ASSERT_NE(rf, nullptr);
  EXPECT_EQ(module_.commands(),
            gets({0x81, 0xEA, 0x83, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8A, 0x8B, 0x8C}));
  EXPECT_EQ(printed_.err, "");
  EXPECT_EQ(rf->hal_object.type, HAL_OUTPUT_RF);
  EXPECT_EQ(rf->hal_object.user, mod_);
  EXPECT_EQ(rf->hal_object.strerror, hal_mod_tarn_strerror);
  EXPECT_EQ(rf->hal_object.delete_, delete_hal_mod_tarn_output_rf);
  EXPECT_EQ(rf->apply, hal_mod_tarn_apply);
  EXPECT_EQ(rf->tsin, tsin);
  ASSERT_NE(rf->tsout, nullptr);
  EXPECT_NE(rf->tsout, tsin);
  EXPECT_EQ(rf->tsout->hal_object.user, nullptr);
  EXPECT_EQ(rf->tsout->sync.psi, nullptr);

  const hal_output_rf_settings_t& s = rf->settings;
  EXPECT_EQ(s.type, HAL_DVB_C);
  EXPECT_EQ(s.enable, 1);
  EXPECT_EQ(s.level_dbm, -4);
  EXPECT_EQ(s.frequency_khz, FREQ_KHZ);
  EXPECT_EQ(s.bandwidth_mhz, 8);
  EXPECT_EQ(s.symbolrate_kbaud, 6900);
  EXPECT_EQ(s.constellation, HAL_256QAM);
  EXPECT_EQ(s.guardinterval, HAL_1_8);
  EXPECT_EQ(s.coderate, HAL_3_4);
  EXPECT_EQ(s.fftmode, HAL_8K);
  EXPECT_EQ(s.carriertype, HAL_SINGLE_CARRIER);
  EXPECT_EQ(s.interleave, HAL_INTLV_720);
  EXPECT_EQ(s.syncframe, HAL_SYNC_945);
  hal_ts_delete(tsin);
}

struct failing_read_t {
  uint8_t code;
  lines_t warnings;
};

/* Named by the read that fails, so that nothing prints the padding of the record. */
void PrintTo(const failing_read_t& read, std::ostream* os) { *os << "read " << static_cast<int>(read.code); }

class HalModTarnInputFailure : public HalModTarn, public ::testing::WithParamInterface<failing_read_t> {};

/* A read that fails anywhere fails the creation; everything built is freed (the leak checkers
 * see to that), each constructor on the way saying so. */
TEST_P(HalModTarnInputFailure, FailsTheCreationAndFreesWhatWasBuilt) {
  module_.answer_error(GetParam().code, 1);
  EXPECT_EQ(new_input(), nullptr);
  EXPECT_EQ(warnings(), GetParam().warnings);
  EXPECT_EQ(module_.codes().back(), GetParam().code);
  EXPECT_EQ(hal_object_count_by_type(HAL_INPUT_HDMI), 0u);
}

const std::string INVALID = " (hdmi command invalid)";
const std::string INPUT_FAILS = "new_hal_mod_tarn_input_hdmi: Could not create";
const std::string TS_FAILS = "new_hal_mod_tarn_ts: Could not create";
const std::string SERVICE_FAILS = "hal_mod_tarn_ts_new_service: Could not create";

INSTANTIATE_TEST_SUITE_P(
    Reads, HalModTarnInputFailure,
    ::testing::Values(
        failing_read_t{0x9D,
                       {driver_warning("mod_tarn_get_audio_pid", "Could not get audio PID" + INVALID),
                        "hal_mod_tarn_service_new_audio_stream: Could not create", SERVICE_FAILS, TS_FAILS,
                        INPUT_FAILS}},
        failing_read_t{0x9C,
                       {driver_warning("mod_tarn_get_video_pid", "Could not get video PID" + INVALID),
                        "hal_mod_tarn_service_new_video_stream: Could not create", SERVICE_FAILS, TS_FAILS,
                        INPUT_FAILS}},
        failing_read_t{0x9B,
                       {driver_warning("mod_tarn_get_pmt_pid", "Could not get PMT PID" + INVALID),
                        SERVICE_FAILS, TS_FAILS, INPUT_FAILS}},
        failing_read_t{
            0x9A,
            {driver_warning("mod_tarn_get_network_version", "Could not get network version" + INVALID),
             TS_FAILS, INPUT_FAILS}},
        failing_read_t{
            0x8F,
            {driver_warning("mod_tarn_get_video_gopsize", "Could not get video GOP size" + INVALID),
             INPUT_FAILS}}));

TEST_F(HalModTarn, OutputFailingToReadFreesItsOwnTsButNotTsin) {
  hal_ts_t* tsin = new_hal_ts();
  module_.answer_error(0x8C, 1);
  EXPECT_EQ(new_output(tsin), nullptr);
  EXPECT_EQ(warnings(),
            (lines_t{driver_warning("mod_tarn_get_syncframe", "Could not get sync frame" + INVALID),
                     "new_hal_mod_tarn_output_rf: Could not create"}));
  EXPECT_EQ(tsin->tag, 0u);
  EXPECT_EQ(hal_object_count_by_type(HAL_OUTPUT_RF), 0u);
  hal_ts_delete(tsin);
}

TEST_F(HalModTarn, DeletingTheOutputLeavesTsinAndTheModule) {
  hal_input_hdmi_t* hdmi = new_input();
  ASSERT_NE(hdmi, nullptr);
  hal_output_rf_t* rf = new_output(hdmi->tsout);
  ASSERT_NE(rf, nullptr);
  rf->hal_object.delete_(&rf->hal_object);
  EXPECT_EQ(hdmi->tsout->service_list.node_count, 1u);
  EXPECT_EQ(service_at(hdmi->tsout, 0)->settings.sid, SID);
  hdmi->hal_object.delete_(&hdmi->hal_object);
  EXPECT_EQ(mod_->hal_object.type, HAL_MOD_TARN);
  EXPECT_EQ(hal_object_count_by_type(HAL_MOD_TARN), 1u);
}

/* ---- texts and results ---- */

TEST_F(HalModTarn, EveryObjectMadeOnTheModuleShowsTheDriverText) {
  hal_input_hdmi_t* hdmi = new_input();
  hal_output_rf_t* rf = new_output(hdmi->tsout);
  ASSERT_NE(rf, nullptr);
  module_.answer_error(0x84, 4);
  uint8_t bandwidth = 0;
  EXPECT_EQ(run([&] { return hal_output_rf_get_bandwidth(rf, &bandwidth); }), HAL_MOD_TARN_ERR);
  hal_service_t* service = service_at(hdmi->tsout, 0);
  for (hal_object_t* object :
       {&mod_->hal_object, &hdmi->hal_object, &rf->hal_object, &hdmi->tsout->hal_object, &service->hal_object,
        &stream_at(service, 0)->hal_object}) {
    EXPECT_STREQ(object->strerror(object), "hdmi command argument out of bounds");
  }
}

TEST_F(HalModTarn, FailingCommandKeepsTheSettingAndLeavesItsErrorInTheModuleObject) {
  hal_output_rf_t* rf = new_output(nullptr);
  ASSERT_NE(rf, nullptr);
  module_.answer_error(0x03, 4);
  EXPECT_EQ(run([&] { return hal_output_rf_set_frequency(rf, 900000); }), HAL_MOD_TARN_ERR);
  EXPECT_EQ(rf->settings.frequency_khz, FREQ_KHZ);
  EXPECT_EQ(rf->hal_object.err, HAL_MOD_TARN_ERR);
  EXPECT_EQ(mod_->hal_object.err, HAL_MOD_TARN_ERR);
  EXPECT_EQ(warnings(),
            (lines_t{driver_warning("mod_tarn_set_frequency",
                                    "Could not set frequency (hdmi command argument out of bounds)")}));
  EXPECT_EQ(run([&] { return hal_output_rf_set_bandwidth(rf, 6); }), HAL_OK);
  EXPECT_EQ(mod_->hal_object.err, HAL_OK);
}

/* ---- RF output operations ---- */

class HalModTarnOutput : public HalModTarn {
 protected:
  void SetUp() override {
    HalModTarn::SetUp();
    rf_ = new_output(nullptr);
    ASSERT_NE(rf_, nullptr);
    module_.clear();
  }
  hal_output_rf_t* rf_ = nullptr;
};

TEST_F(HalModTarnOutput, NumbersGoToTheModuleAsTheyAre) {
  EXPECT_EQ(hal_output_rf_set_frequency(rf_, 474000), HAL_OK);
  EXPECT_EQ(hal_output_rf_set_bandwidth(rf_, 7), HAL_OK);
  EXPECT_EQ(hal_output_rf_set_symbolrate(rf_, 6875), HAL_OK);
  EXPECT_EQ(hal_output_rf_set_enable(rf_, 0), HAL_OK);
  EXPECT_EQ(module_.commands(), (std::vector<bytes_t>{cmd(0x03, {0x00, 0x07, 0x3B, 0x90}), cmd(0x04, {7}),
                                                      cmd(0x05, be16(6875)), cmd(0x6A, {0})}));
  EXPECT_EQ(rf_->settings.bandwidth_mhz, 7);
  EXPECT_EQ(rf_->settings.symbolrate_kbaud, 6875);
  EXPECT_EQ(rf_->settings.enable, 0);

  module_.clear();
  module_.hold(0x85, be16(5217));
  uint16_t symbolrate = 0;
  uint8_t enabled = 9;
  EXPECT_EQ(hal_output_rf_get_symbolrate(rf_, &symbolrate), HAL_OK);
  EXPECT_EQ(hal_output_rf_get_enable(rf_, &enabled), HAL_OK);
  EXPECT_EQ(symbolrate, 5217);
  EXPECT_EQ(enabled, 0);
  EXPECT_EQ(module_.commands(), gets({0x85, 0xEA}));
}

TEST_F(HalModTarnOutput, EnumerationsGoToTheModuleByValue) {
  EXPECT_EQ(hal_output_rf_set_type(rf_, HAL_ISDBT), HAL_OK);
  EXPECT_EQ(hal_output_rf_set_constellation(rf_, HAL_4NRQAM), HAL_OK);
  EXPECT_EQ(hal_output_rf_set_guardinterval(rf_, HAL_1_4), HAL_OK);
  EXPECT_EQ(hal_output_rf_set_coderate(rf_, HAL_0_8), HAL_OK);
  EXPECT_EQ(hal_output_rf_set_fftmode(rf_, HAL_4K), HAL_OK);
  EXPECT_EQ(hal_output_rf_set_carriertype(rf_, HAL_MULTI_CARRIER), HAL_OK);
  EXPECT_EQ(hal_output_rf_set_interleave(rf_, HAL_INTLV_240), HAL_OK);
  EXPECT_EQ(hal_output_rf_set_syncframe(rf_, HAL_SYNC_595), HAL_OK);
  EXPECT_EQ(module_.commands(),
            (std::vector<bytes_t>{cmd(0x01, {32}), cmd(0x06, {34}), cmd(0x07, {3}), cmd(0x08, {7}),
                                  cmd(0x09, {2}), cmd(0x0A, {0}), cmd(0x0B, {1}), cmd(0x0C, {2})}));
}

TEST_F(HalModTarnOutput, EnumerationsComeBackByValue) {
  module_.hold(0x81, {MOD_TARN_DTMB});
  module_.hold(0x86, {MOD_TARN_4QAM});
  module_.hold(0x88, {MOD_TARN_0_6});
  module_.hold(0x8C, {MOD_TARN_SYNC_420});
  hal_output_type_t type;
  hal_constellation_t constellation;
  hal_coderate_t coderate;
  hal_syncframe_t syncframe;
  EXPECT_EQ(hal_output_rf_get_type(rf_, &type), HAL_OK);
  EXPECT_EQ(hal_output_rf_get_constellation(rf_, &constellation), HAL_OK);
  EXPECT_EQ(hal_output_rf_get_coderate(rf_, &coderate), HAL_OK);
  EXPECT_EQ(hal_output_rf_get_syncframe(rf_, &syncframe), HAL_OK);
  EXPECT_EQ(type, HAL_DTMB);
  EXPECT_EQ(constellation, HAL_4QAM);
  EXPECT_EQ(coderate, HAL_0_6);
  EXPECT_EQ(syncframe, HAL_SYNC_420);
  EXPECT_EQ(module_.commands(), gets({0x81, 0x86, 0x88, 0x8C}));
}

/* An enumeration is translated only when the module gave one: neither a firmware that does not know
 * the command nor a failure touches the value. */
TEST_F(HalModTarnOutput, EnumerationReadsLeaveTheValueWhenTheModuleGivesNone) {
  hal_constellation_t constellation = HAL_QPSK;
  module_.answer_error(0x86, 2);
  EXPECT_EQ(run([&] { return hal_output_rf_get_constellation(rf_, &constellation); }), HAL_OK);
  EXPECT_EQ(constellation, HAL_256QAM); /* the setting, copied out */
  EXPECT_EQ(printed_.err, "");
  module_.answer_error(0x86, 1);
  constellation = HAL_QPSK;
  EXPECT_EQ(run([&] { return hal_output_rf_get_constellation(rf_, &constellation); }), HAL_MOD_TARN_ERR);
  EXPECT_EQ(constellation, HAL_QPSK);
  EXPECT_EQ(rf_->settings.constellation, HAL_256QAM);
}

TEST_F(HalModTarnOutput, LevelIsSentWithTheOffsetOfTheModuleFrequency) {
  EXPECT_EQ(hal_output_rf_set_level(rf_, -20), HAL_OK);
  module_.hold(0x83, be32(600000));
  EXPECT_EQ(hal_output_rf_set_level(rf_, -20), HAL_OK);
  module_.hold(0x83, be32(1000000));
  EXPECT_EQ(hal_output_rf_set_level(rf_, -10), HAL_OK);
  EXPECT_EQ(module_.commands(), (std::vector<bytes_t>{cmd(0x83), cmd(0x02, {0xF1}), cmd(0x83),
                                                      cmd(0x02, {0xF4}), cmd(0x83), cmd(0x02, {0x00})}));
  EXPECT_EQ(rf_->settings.level_dbm, -10);
}

TEST_F(HalModTarnOutput, LevelIsReadWithTheOffsetOfTheModuleFrequency) {
  module_.hold(0x83, be32(600000));
  module_.hold(0x82, {0x10});
  int8_t level = 0;
  EXPECT_EQ(hal_output_rf_get_level(rf_, &level), HAL_OK);
  EXPECT_EQ(level, 8);
  EXPECT_EQ(module_.commands(), gets({0x83, 0x82}));
}

/* The read leaves 0 kHz, the band up to 500 MHz with its 5 dB offset, whatever the output holds. */
TEST_F(HalModTarnOutput, LevelWithAnUnreadableFrequencyTakesTheOffsetOfZeroKilohertz) {
  rf_->settings.frequency_khz = 800000;
  module_.hold(0x83, be32(800000));
  module_.answer_error(0x83, 1);
  EXPECT_EQ(run([&] { return hal_output_rf_set_level(rf_, -20); }), HAL_OK);
  EXPECT_EQ(module_.commands(), (std::vector<bytes_t>{cmd(0x83), cmd(0x02, {0xF1})}));
  EXPECT_EQ(warnings(),
            (lines_t{driver_warning("mod_tarn_get_frequency", "Could not get frequency" + INVALID)}));
  EXPECT_EQ(rf_->settings.level_dbm, -20);
  EXPECT_EQ(mod_->hal_object.err, HAL_OK);

  module_.clear();
  module_.hold(0x82, {0xF1});
  int8_t level = 0;
  EXPECT_EQ(run([&] { return hal_output_rf_get_level(rf_, &level); }), HAL_OK);
  EXPECT_EQ(level, -20);
  EXPECT_EQ(module_.commands(), gets({0x83, 0x82}));
}

TEST_F(HalModTarnOutput, LevelWithAFrequencyTheFirmwareDoesNotKnowIsSentQuietly) {
  module_.answer_error(0x83, 2);
  EXPECT_EQ(run([&] { return hal_output_rf_set_level(rf_, -20); }), HAL_OK);
  EXPECT_EQ(module_.commands(), (std::vector<bytes_t>{cmd(0x83), cmd(0x02, {0xF1})}));
  EXPECT_EQ(printed_.err, "");
}

TEST_F(HalModTarnOutput, CalibrationGoesEnableFirstAndComesBackAsTwoSignedBytes) {
  EXPECT_EQ(hal_output_rf_set_cal(rf_, -3, 4, 1), HAL_OK);
  int8_t i = 0;
  int8_t q = 0;
  EXPECT_EQ(hal_output_rf_get_cal(rf_, &i, &q), HAL_OK);
  EXPECT_EQ(i, -3);
  EXPECT_EQ(q, 4);
  EXPECT_EQ(module_.commands(), (std::vector<bytes_t>{cmd(0x61, {1, 0xFD, 4}), cmd(0xE1)}));
}

TEST_F(HalModTarnOutput, StatusTakesTheBitrateAndOverflowOfTheModule) {
  EXPECT_EQ(hal_output_rf_get_status(rf_), HAL_OK);
  EXPECT_EQ(rf_->status.max_bitrate_kbps, 23751);
  EXPECT_EQ(rf_->status.overflow, 1);
  EXPECT_EQ(module_.commands(), gets({0xFE}));
}

TEST_F(HalModTarnOutput, ApplySendsTheApplyCommand) {
  verbose = 1;
  EXPECT_EQ(run([&] { return hal_output_rf_apply(rf_); }), HAL_OK);
  EXPECT_EQ(module_.commands(), gets({0x70}));
  module_.answer_error(0x70, 3);
  rf_->apply_required = 1;
  EXPECT_EQ(run([&] { return hal_output_rf_apply(rf_); }), HAL_MOD_TARN_ERR);
  EXPECT_EQ(rf_->apply_required, 1);
  EXPECT_EQ(warnings(),
            (lines_t{driver_warning("mod_tarn_apply", "Could not apply (hdmi command timeout)")}));
}

/* ---- HDMI input, TS, service and stream operations ---- */

class HalModTarnInput : public HalModTarn {
 protected:
  void SetUp() override {
    HalModTarn::SetUp();
    hdmi_ = new_input();
    ASSERT_NE(hdmi_, nullptr);
    ts_ = hdmi_->tsout;
    service_ = service_at(ts_, 0);
    video_ = stream_at(service_, 0);
    audio_ = stream_at(service_, 1);
    module_.clear();
  }
  hal_input_hdmi_t* hdmi_ = nullptr;
  hal_ts_t* ts_ = nullptr;
  hal_service_t* service_ = nullptr;
  hal_stream_t* video_ = nullptr;
  hal_stream_t* audio_ = nullptr;
};

TEST_F(HalModTarnInput, EncoderSettingsGoToTheModule) {
  EXPECT_EQ(hal_input_hdmi_set_video_bitrate(hdmi_, 6000), HAL_OK);
  EXPECT_EQ(hal_input_hdmi_set_video_gopsize(hdmi_, 25), HAL_OK);
  EXPECT_EQ(hal_input_hdmi_set_audio_bitrate(hdmi_, 128), HAL_OK);
  EXPECT_EQ(hal_input_hdmi_apply(hdmi_), HAL_OK);
  EXPECT_EQ(module_.commands(), (std::vector<bytes_t>{cmd(0x0E, {0x17, 0x70}), cmd(0x0F, {25}),
                                                      cmd(0x11, {0x00, 0x80}), cmd(0x70)}));
}

TEST_F(HalModTarnInput, DebugCodesPassThroughWithTheirCode) {
  EXPECT_EQ(hal_input_hdmi_set_hw_debug_code(hdmi_, 5, 1), HAL_OK);
  uint8_t enabled = 7;
  EXPECT_EQ(hal_input_hdmi_get_hw_debug_code(hdmi_, 5, &enabled), HAL_OK);
  EXPECT_EQ(enabled, 1);
  EXPECT_EQ(module_.commands(), (std::vector<bytes_t>{cmd(0x6B, {5, 1}), cmd(0xEB, {5})}));
}

TEST_F(HalModTarnInput, StatusTakesTheInputFormatOfTheModule) {
  EXPECT_EQ(hal_input_hdmi_get_status(hdmi_), HAL_OK);
  EXPECT_EQ(hdmi_->status.lock, 1);
  EXPECT_EQ(hdmi_->status.video_height, 1080);
  EXPECT_EQ(hdmi_->status.video_scan_mode, 'p');
  EXPECT_EQ(hdmi_->status.video_frame_rate, 50);
  EXPECT_EQ(module_.commands(), gets({0xFE}));
}

TEST_F(HalModTarnInput, StatusIsKeptWhenTheModuleDoesNotAnswer) {
  module_.answer_error(0xFE, 1);
  hdmi_->status = {0, 576, 'i', 25};
  EXPECT_EQ(run([&] { return hal_input_hdmi_get_status(hdmi_); }), HAL_MOD_TARN_ERR);
  EXPECT_EQ(hdmi_->status.video_height, 576);
  EXPECT_EQ(hdmi_->status.video_scan_mode, 'i');
}

TEST_F(HalModTarnInput, TsIdentityGoesToTheModuleWithNamesCutTo15Characters) {
  EXPECT_EQ(hal_ts_set_tsid(ts_, 0x1234), HAL_OK);
  EXPECT_EQ(hal_ts_set_onid(ts_, 0x0102), HAL_OK);
  EXPECT_EQ(hal_ts_set_nid(ts_, 0x0304), HAL_OK);
  EXPECT_EQ(hal_ts_set_private_data_specifier(ts_, 0x01020304), HAL_OK);
  EXPECT_EQ(hal_ts_set_network_name(ts_, "A network name of 30 letters.."), HAL_OK);
  EXPECT_EQ(hal_ts_set_network_version(ts_, 9), HAL_OK);
  EXPECT_EQ(module_.commands(), (std::vector<bytes_t>{cmd(0x13, be16(0x1234)), cmd(0x14, be16(0x0102)),
                                                      cmd(0x15, be16(0x0304)), cmd(0x16, {1, 2, 3, 4}),
                                                      cmd(0x19, text("A network name ")), cmd(0x1A, {9})}));
  EXPECT_STREQ(ts_->settings.network_name, "A network name of 30 letters..");

  char name[HAL_TS_TEXT_SIZE];
  EXPECT_EQ(hal_ts_get_network_name(ts_, name, sizeof(name)), HAL_OK);
  EXPECT_STREQ(name, "A network name ");
}

TEST_F(HalModTarnInput, ServiceIdentityGoesToTheModule) {
  EXPECT_EQ(hal_service_set_sid(service_, 0x0203), HAL_OK);
  EXPECT_EQ(hal_service_set_name(service_, "Camera"), HAL_OK);
  EXPECT_EQ(hal_service_set_lcn(service_, 12), HAL_OK);
  EXPECT_EQ(hal_service_set_pmt_pid(service_, 0x0500), HAL_OK);
  EXPECT_EQ(module_.commands(), (std::vector<bytes_t>{cmd(0x12, be16(0x0203)), cmd(0x18, text("Camera")),
                                                      cmd(0x17, be16(12)), cmd(0x1B, be16(0x0500))}));
}

TEST_F(HalModTarnInput, ServiceTypeAndVideoStreamTypeAreFixedAndTouchNoBus) {
  EXPECT_EQ(hal_service_set_type(service_, 0x1234), HAL_OK);
  EXPECT_EQ(service_->settings.type, 0x34);
  uint8_t service_type = 0;
  EXPECT_EQ(hal_service_get_type(service_, &service_type), HAL_OK);
  EXPECT_EQ(service_type, 1);

  EXPECT_EQ(hal_stream_set_type(video_, HAL_MPEG2), HAL_OK);
  EXPECT_EQ(video_->settings.type, HAL_MPEG2);
  hal_stream_type_t video_type = HAL_STREAM_TYPE_UNKNOWN;
  EXPECT_EQ(hal_stream_get_type(video_, &video_type), HAL_OK);
  EXPECT_EQ(video_type, HAL_H264);
  EXPECT_EQ(video_->settings.type, HAL_H264);
  EXPECT_EQ(mod_->hal_object.err, HAL_OK);
  EXPECT_EQ(module_.commands(), std::vector<bytes_t>{});
}

TEST_F(HalModTarnInput, StreamsDriveTheAudioAndVideoOfTheModule) {
  EXPECT_EQ(hal_stream_set_pid(audio_, 0x0301), HAL_OK);
  EXPECT_EQ(hal_stream_set_bitrate(audio_, 256), HAL_OK);
  EXPECT_EQ(hal_stream_set_pid(video_, 0x0300), HAL_OK);
  EXPECT_EQ(hal_stream_set_bitrate(video_, 12000), HAL_OK);
  EXPECT_EQ(module_.commands(), (std::vector<bytes_t>{cmd(0x1D, be16(0x0301)), cmd(0x11, be16(256)),
                                                      cmd(0x1C, be16(0x0300)), cmd(0x0E, be16(12000))}));
}

TEST_F(HalModTarnInput, AudioStreamTypeGoesThroughTheStreamTypeTables) {
  EXPECT_EQ(hal_stream_set_type(audio_, HAL_MPEG2), HAL_OK);
  EXPECT_EQ(hal_stream_set_type(audio_, HAL_STREAM_TYPE_UNKNOWN), HAL_OK);
  EXPECT_EQ(hal_stream_set_type(audio_, HAL_AAC), HAL_OK);
  EXPECT_EQ(module_.commands(), (std::vector<bytes_t>{cmd(0x10, {2}), cmd(0x10, {2}), cmd(0x10, {0})}));

  hal_stream_type_t type = HAL_AAC;
  module_.hold(0x90, {MOD_TARN_MPEG2});
  EXPECT_EQ(hal_stream_get_type(audio_, &type), HAL_OK);
  EXPECT_EQ(type, HAL_MPEG2);
  module_.hold(0x90, {5});
  EXPECT_EQ(hal_stream_get_type(audio_, &type), HAL_OK);
  EXPECT_EQ(type, HAL_STREAM_TYPE_UNKNOWN);
}

/* ---- a firmware that knows no command ---- */

TEST_F(HalModTarn, ModuleThatKnowsNoCommandWorksQuietly) {
  module_.know_nothing();
  hal_input_hdmi_t* hdmi = new_input();
  ASSERT_NE(hdmi, nullptr);
  hal_output_rf_t* rf = new_output(hdmi->tsout);
  ASSERT_NE(rf, nullptr);
  EXPECT_EQ(printed_.err, "");
  hal_service_t* service = service_at(hdmi->tsout, 0);
  EXPECT_EQ(service->settings.sid, 0);
  EXPECT_EQ(stream_at(service, 1)->settings.type, HAL_STREAM_TYPE_UNKNOWN);
  EXPECT_EQ(rf->settings.frequency_khz, 0u);

  hal_ts_t* all = new_hal_ts();
  add_service(all, 0x0900, "Other", streams_of({0x0901}, HAL_H264))->enabled = 1;
  printed_t printed = printed_by([&] {
    EXPECT_EQ(hal_output_rf_set_frequency(rf, 474000), HAL_OK);
    EXPECT_EQ(hal_output_rf_set_level(rf, -3), HAL_OK);
    EXPECT_EQ(hal_output_rf_get_status(rf), HAL_OK);
    EXPECT_EQ(hal_output_rf_apply(rf), HAL_OK);
    EXPECT_EQ(hal_input_hdmi_set_video_bitrate(hdmi, 5000), HAL_OK);
    EXPECT_EQ(hal_ts_set_network_name(hdmi->tsout, "net"), HAL_OK);
    EXPECT_EQ(hal_ts_sync_psi(hdmi->tsout, all), HAL_OK);
    EXPECT_EQ(hal_input_hdmi_apply(hdmi), HAL_OK);
  });
  EXPECT_EQ(warnings_in(printed.err), (lines_t{"hal_mod_tarn_sync_psi: C"}));
  EXPECT_EQ(rf->settings.frequency_khz, 474000u);
  EXPECT_EQ(mod_->hal_object.err, HAL_OK);
  hal_ts_delete(all);
}

/* ---- PSI ---- */

class HalModTarnPsi : public HalModTarnInput {
 protected:
  void SetUp() override {
    HalModTarnInput::SetUp();
    all_ = new_hal_ts();
  }
  void TearDown() override {
    hal_ts_delete(all_);
    HalModTarnInput::TearDown();
  }

  /* A service of the whole output with its LCN and PMT PID derived from its SID. */
  hal_service_t* foreign(uint16_t sid, const std::string& name,
                         const std::vector<hal_stream_settings_t>& streams, uint8_t enabled = 1) {
    hal_service_t* service = add_service(all_, sid, name, streams);
    hal_service_set_lcn(service, static_cast<uint16_t>(sid + 1));
    hal_service_set_pmt_pid(service, static_cast<uint16_t>(sid + 2));
    service->enabled = enabled;
    return service;
  }

  hal_err_t sync(uint8_t verbosity = 1) {
    verbose = verbosity;
    return run([this] { return hal_ts_sync_psi(ts_, all_); });
  }

  hal_ts_t* all_ = nullptr;
};

std::vector<bytes_t> identity(uint8_t slot, uint16_t sid, const std::string& name) {
  return {slot_cmd(0x63, slot, be16(sid)), slot_cmd(0x64, slot, be16(static_cast<uint16_t>(sid + 1))),
          slot_cmd(0x65, slot, text(name)), slot_cmd(0x66, slot, be16(static_cast<uint16_t>(sid + 2)))};
}
bytes_t video_pid(uint8_t slot, uint16_t pid) { return slot_cmd(0x67, slot, be16(pid)); }
std::vector<bytes_t> audio(uint8_t slot, uint16_t pid, uint8_t type) {
  return {slot_cmd(0x68, slot, be16(pid)), slot_cmd(0x69, slot, {type})};
}
bytes_t enable(uint8_t slot, uint8_t on) { return slot_cmd(0x62, slot, {on}); }

std::vector<bytes_t> frames(std::initializer_list<std::vector<bytes_t>> parts) {
  std::vector<bytes_t> all;
  for (const std::vector<bytes_t>& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

const std::string OPEN = "<SYNC_PSI> hal_mod_tarn";
const std::string CLOSE = "</SYNC_PSI> hal_mod_tarn";

TEST_F(HalModTarnPsi, FourForeignServicesFillTheThreeSlotsInListOrder) {
  foreign(0x0400, "Four", streams_of({0x0401}, HAL_H264));
  foreign(0x0300, "Three", streams_of({0x0301}, HAL_H264));
  foreign(0x0200, "Two", streams_of({0x0201}, HAL_H264));
  foreign(0x0100, "One", streams_of({0x0101}, HAL_H264));
  EXPECT_EQ(sync(), HAL_OK);
  EXPECT_EQ(module_.commands(), frames({identity(0, 0x0100, "One"),
                                        {video_pid(0, 0x0101), enable(0, 1)},
                                        identity(1, 0x0200, "Two"),
                                        {video_pid(1, 0x0201), enable(1, 1)},
                                        identity(2, 0x0300, "Three"),
                                        {video_pid(2, 0x0301), enable(2, 1)}}));
  EXPECT_EQ(messages(), (lines_t{OPEN, "Add PSI for service [\"One\"] (slot: 0)",
                                 "Add PSI for service [\"Two\"] (slot: 1)",
                                 "Add PSI for service [\"Three\"] (slot: 2)", CLOSE}));
  EXPECT_EQ(warnings(), (lines_t{"hal_mod_tarn_sync_psi: C"}));
  EXPECT_EQ(mod_->hal_object.err, HAL_OK);
  EXPECT_EQ(ts_->hal_object.err, HAL_OK);
}

TEST_F(HalModTarnPsi, WithoutForeignServicesEverySlotIsSwitchedOff) {
  EXPECT_EQ(sync(), HAL_OK);
  EXPECT_EQ(module_.commands(), (std::vector<bytes_t>{enable(0, 0), enable(1, 0), enable(2, 0)}));
  EXPECT_EQ(messages(),
            (lines_t{OPEN, "Remove PSI (slot: 0)", "Remove PSI (slot: 1)", "Remove PSI (slot: 2)", CLOSE}));
  EXPECT_EQ(warnings(), (lines_t{"hal_mod_tarn_sync_psi: C"}));
}

TEST_F(HalModTarnPsi, ServiceWithoutAudioOrVideoLeavesItsSlotToTheNext) {
  foreign(0x0600, "Radio", streams_of({0x0601}, HAL_AAC));
  foreign(0x0500, "Data", streams_of({0x0501}, HAL_STREAM_TYPE_UNKNOWN));
  EXPECT_EQ(sync(), HAL_OK);
  EXPECT_EQ(module_.commands(), frames({identity(0, 0x0500, "Data"),
                                        identity(0, 0x0600, "Radio"),
                                        audio(0, 0x0601, MOD_TARN_AAC),
                                        {enable(0, 1), enable(1, 0), enable(2, 0)}}));
  EXPECT_EQ(messages(), (lines_t{OPEN, "Add PSI for service [\"Radio\"] (slot: 0)", "Remove PSI (slot: 1)",
                                 "Remove PSI (slot: 2)", CLOSE}));
}

TEST_F(HalModTarnPsi, DisabledServicesAndTheModuleOwnServiceAreSkippedWithoutACommand) {
  foreign(0x0700, "Off", streams_of({0x0701}, HAL_H264), 0);
  hal_service_t* mirror = foreign(SID, "HDMI 1", streams_of({VIDEO_PID}, HAL_H264));
  mirror->tag = service_->tag;
  EXPECT_EQ(sync(), HAL_OK);
  EXPECT_EQ(module_.commands(), (std::vector<bytes_t>{enable(0, 0), enable(1, 0), enable(2, 0)}));
}

/* Every audio and video stream goes into the slot in list order, so the last of each kind stays;
 * other streams are passed over. */
TEST_F(HalModTarnPsi, StreamsOfAServiceGoIntoItsSlotInListOrder) {
  foreign(0x0800, "Mixed",
          {{0x0804, HAL_STREAM_TYPE_UNKNOWN, 0},
           {0x0803, HAL_AAC, 0},
           {0x0802, HAL_H264, 0},
           {0x0801, HAL_MPEG2, 0}});
  EXPECT_EQ(sync(0), HAL_OK);
  EXPECT_EQ(module_.commands(), frames({identity(0, 0x0800, "Mixed"),
                                        audio(0, 0x0801, MOD_TARN_MPEG2),
                                        {video_pid(0, 0x0802)},
                                        audio(0, 0x0803, MOD_TARN_AAC),
                                        {enable(0, 1), enable(1, 0), enable(2, 0)}}));
  EXPECT_EQ(printed_.out, "");
  EXPECT_EQ(warnings(), (lines_t{"hal_mod_tarn_sync_psi: C"}));
}

TEST_F(HalModTarnPsi, FailingCommandEndsTheSynchronisationAtOnce) {
  foreign(0x0B00, "Second", streams_of({0x0B01}, HAL_H264));
  foreign(0x0A00, "First", streams_of({0x0A01}, HAL_H264));
  module_.answer_error(0x66, 1);
  EXPECT_EQ(sync(), HAL_MOD_TARN_ERR);
  EXPECT_EQ(module_.commands(), identity(0, 0x0A00, "First"));
  EXPECT_EQ(messages(), (lines_t{OPEN}));
  EXPECT_EQ(warnings(), (lines_t{driver_warning("mod_tarn_set_extra_service_info_pmt",
                                                "Could not set extra info PMT PID" + INVALID)}));
  EXPECT_EQ(mod_->hal_object.err, HAL_MOD_TARN_ERR);
  EXPECT_EQ(ts_->hal_object.err, HAL_MOD_TARN_ERR);
}

TEST_F(HalModTarnPsi, FailingToSwitchASlotOffEndsTheSynchronisationAtOnce) {
  module_.answer_error(0x62, 1);
  EXPECT_EQ(sync(), HAL_MOD_TARN_ERR);
  EXPECT_EQ(module_.commands(), (std::vector<bytes_t>{enable(0, 0)}));
  EXPECT_EQ(messages(), (lines_t{OPEN, "Remove PSI (slot: 0)"}));
  EXPECT_EQ(warnings(), (lines_t{driver_warning("mod_tarn_set_extra_service_info_enable",
                                                "Could not set extra service enable" + INVALID)}));
}

TEST_F(HalModTarnPsi, NamesInASlotAreCutTo15Characters) {
  foreign(0x0C00, "A service name of 27 chars.", streams_of({0x0C01}, HAL_H264));
  EXPECT_EQ(sync(0), HAL_OK);
  EXPECT_EQ(module_.commands()[2], slot_cmd(0x65, 0, text("A service name ")));
}

}  // namespace
