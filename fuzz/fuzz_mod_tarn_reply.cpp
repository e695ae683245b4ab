/* One module transaction answered with any bytes: the input chooses the operation (the raw
 * transaction or one of the getters and commands built on it), how the bus behaves, and the reply
 * the module puts on the bus. Whatever comes back, the driver must read nothing past its buffers,
 * give the result the frame rules give, and leave a getter's output untouched when it fails.
 *
 * Input: operation byte, bus byte, then the reply bytes; the raw transaction (the last operation)
 * takes a reply size, a command size and the command frame before its reply bytes. */
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <memory>
#include <mutex>
#include <string>

#include "fuzz_support.h"
#include "i2c.h"
#include "mod_tarn.h"
#include "utf8.h"

namespace {

using fuzz::bytes_t;

constexpr uint8_t MODULE_ADDR = 0x30;
constexpr uint32_t FREQ_KHZ = 474000;  /* in the band whose level offset is 5 dB */
constexpr size_t NAME_SIZE = 20;       /* what the daemon's name buffers hold */
constexpr uint8_t FOREIGN_BYTE = 0x5A; /* neither acknowledge nor not-acknowledge */
constexpr uint8_t SENTINEL = 0xA5;

enum bus_mode_t : uint8_t { BUS_ANSWERS, BUS_GARBLES, BUS_HANGS_UP, BUS_MODES };

/* One module on the bus, whose reply to the next read is given by the harness. It acknowledges
 * every write at once. */
class ScriptedBus : public fuzz::SimBus {
 public:
  void script(bus_mode_t mode, const bytes_t& reply) {
    std::lock_guard<std::mutex> lock(mutex_);
    mode_ = mode;
    reply_ = reply;
  }

 protected:
  answer_t on_write(uint8_t addr, const bytes_t&) override {
    return addr == MODULE_ADDR ? answer_t{{0x00}, false} : nack();
  }

  answer_t on_read(uint8_t addr, size_t len) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (addr != MODULE_ADDR) return nack();
    if (mode_ == BUS_GARBLES) return {{FOREIGN_BYTE}, false};
    answer_t answer = {{0x00}, mode_ == BUS_HANGS_UP};
    bytes_t data = reply_;
    /* Hanging up, the bus sends less than was asked for; otherwise the module pads with zeros. */
    data.resize(mode_ == BUS_HANGS_UP ? std::min(data.size(), len > 0 ? len - 1 : 0) : len, 0x00);
    if (mode_ == BUS_HANGS_UP && len == 0) answer.bytes.clear();
    answer.bytes.insert(answer.bytes.end(), data.begin(), data.end());
    return answer;
  }

 private:
  std::mutex mutex_;
  bus_mode_t mode_ = BUS_ANSWERS;
  bytes_t reply_;
};

ScriptedBus* bus;
i2c_t i2c;
mod_tarn_t mod;

/* ---- what the frame rules make of a reply ---- */

struct input_t {
  bus_mode_t mode;
  bytes_t reply;
};

/* The bytes a read of `size` gets when the bus answers. */
bytes_t read_bytes(const input_t& in, size_t size) {
  bytes_t bytes = in.reply;
  bytes.resize(size, 0x00);
  return bytes;
}

mod_tarn_err_t error_byte_result(uint8_t error_byte) {
  static constexpr mod_tarn_err_t results[] = {MOD_TARN_OK, MOD_TARN_CMD_INVLD, MOD_TARN_CMD_UNKNOWN,
                                               MOD_TARN_CMD_TIMEOUT, MOD_TARN_CMD_OOB};
  return error_byte < sizeof(results) / sizeof(results[0]) ? results[error_byte] : MOD_TARN_CMD_ERR;
}

/* The result of a transaction with a valid command frame that reads `size` bytes. */
mod_tarn_err_t expected_result(const input_t& in, size_t size) {
  if (in.mode != BUS_ANSWERS) return MOD_TARN_I2C_ERR;
  const bytes_t rpl = read_bytes(in, size);
  const bool valid = size >= MOD_TARN_RPL_HEADER_SIZE + MOD_TARN_RPL_FOOTER_SIZE &&
                     MOD_TARN_RPL_HEADER_SIZE + size_t{rpl[MOD_TARN_RPL_LEN_OFFSET]} < size &&
                     rpl[MOD_TARN_RPL_TAG_OFFSET] == MOD_TARN_RPL_START &&
                     rpl[MOD_TARN_RPL_HEADER_SIZE + rpl[MOD_TARN_RPL_LEN_OFFSET]] == MOD_TARN_RPL_END;
  return valid ? error_byte_result(rpl[MOD_TARN_RPL_ERR_OFFSET]) : MOD_TARN_RPL_INVLD;
}

size_t reply_size(size_t payload) { return MOD_TARN_RPL_HEADER_SIZE + payload + MOD_TARN_RPL_FOOTER_SIZE; }

uint32_t payload_be(const input_t& in, size_t size, size_t bytes) {
  const bytes_t rpl = read_bytes(in, size);
  uint32_t value = 0;
  for (size_t i = 0; i < bytes; i++) value = value << 8 | rpl[MOD_TARN_RPL_HEADER_SIZE + i];
  return value;
}

void check(bool good, const char* what) {
  if (!good) fuzz::fail(what);
}

/* The result is the one the frame rules give, returned and left in err. */
void check_result(mod_tarn_err_t got, mod_tarn_err_t expected) {
  check(got == expected && mod.err == expected, "the result is not the one the reply frame gives");
}

/* ---- the operations ---- */

/* A getter of one number of `bytes` bytes: on success the payload's big-endian number, on failure the
 * caller's value untouched. */
template <typename T>
void number_getter(const input_t& in, mod_tarn_err_t (*get)(mod_tarn_t*, T*), size_t bytes) {
  T value;
  memset(&value, SENTINEL, sizeof(value));
  T untouched = value;
  const size_t size = reply_size(bytes);
  check_result(get(&mod, &value), expected_result(in, size));
  if (mod.err == MOD_TARN_OK) {
    check(value == static_cast<T>(payload_be(in, size, bytes)), "the number is not the payload's");
  } else {
    check(memcmp(&value, &untouched, sizeof(value)) == 0, "a failed get wrote its output");
  }
}

template <typename T>
void slot_number_getter(const input_t& in, mod_tarn_err_t (*get)(mod_tarn_t*, uint8_t, T*), size_t bytes) {
  T value;
  memset(&value, SENTINEL, sizeof(value));
  T untouched = value;
  const size_t size = reply_size(bytes);
  check_result(get(&mod, 2, &value), expected_result(in, size));
  if (mod.err == MOD_TARN_OK) {
    check(value == static_cast<T>(payload_be(in, size, bytes)), "the number is not the payload's");
  } else {
    check(memcmp(&value, &untouched, sizeof(value)) == 0, "a failed get wrote its output");
  }
}

/* A name: at most the length byte's characters and at most size - 1, always terminated; nothing
 * written on failure. The buffer is exactly `size` bytes, so that a write past it is caught. */
void check_name(const input_t& in, mod_tarn_err_t result, const char* name, const char* untouched,
                size_t size, size_t payload) {
  const size_t rpl_size = reply_size(payload);
  check_result(result, expected_result(in, rpl_size));
  if (mod.err != MOD_TARN_OK || size == 0) {
    check(memcmp(name, untouched, size) == 0, "a failed get wrote its output");
    return;
  }
  const bytes_t rpl = read_bytes(in, rpl_size);
  const char* text = reinterpret_cast<const char*>(rpl.data() + MOD_TARN_RPL_HEADER_SIZE);
  const size_t whole = rpl[MOD_TARN_RPL_LEN_OFFSET];
  const size_t limit = std::min<size_t>(whole, size - 1);
  /* A payload longer than the buffer is cut between characters: at most the three bytes of a
   * character that did not fit are dropped. */
  const size_t length = utf8_cut(text, whole, size - 1);
  check(length <= limit && limit - length < 4 && (length == limit || whole > size - 1),
        "the name is not cut between characters");
  check(memcmp(name, text, length) == 0 && name[length] == '\0', "the name is not the payload's");
}

template <size_t SIZE>
void name_getter(const input_t& in, mod_tarn_err_t (*get)(mod_tarn_t*, char*, size_t)) {
  std::unique_ptr<char[]> name(new char[SIZE]);
  char untouched[SIZE + 1];
  memset(name.get(), SENTINEL, SIZE);
  memset(untouched, SENTINEL, SIZE);
  mod_tarn_err_t result = get(&mod, name.get(), SIZE);
  check_name(in, result, name.get(), untouched, SIZE, MOD_TARN_CMD_SERVICE_NAME_LEN);
}

void extra_name_getter(const input_t& in) {
  std::unique_ptr<char[]> name(new char[NAME_SIZE]);
  char untouched[NAME_SIZE];
  memset(name.get(), SENTINEL, NAME_SIZE);
  memset(untouched, SENTINEL, NAME_SIZE);
  mod_tarn_err_t result = mod_tarn_get_extra_service_info_service_name(&mod, 1, name.get(), NAME_SIZE);
  check_name(in, result, name.get(), untouched, NAME_SIZE,
             MOD_TARN_CMD_EXTRA_SERVICE_INFO_SERVICE_NAME_LEN - MOD_TARN_CMD_EXTRA_SERVICE_INFO_GET_LEN);
}

/* The raw transaction: a reply size, a command size and the command frame lead the reply bytes.
 * Both buffers are exactly as large as said. */
void raw_transaction(bus_mode_t mode, const uint8_t* data, size_t size) {
  if (size < 2) return;
  const uint32_t rpl_size = data[0];
  const uint32_t cmd_size = std::min<uint32_t>(data[1], static_cast<uint32_t>(size - 2));
  std::unique_ptr<uint8_t[]> cmd(new uint8_t[cmd_size]);
  if (cmd_size > 0) memcpy(cmd.get(), data + 2, cmd_size);
  std::unique_ptr<uint8_t[]> rpl(new uint8_t[rpl_size]);
  const uint8_t* reply = data + 2 + cmd_size;
  const input_t in = {mode, bytes_t(reply, data + size)};
  const bool cmd_valid = cmd_size >= MOD_TARN_CMD_HEADER_SIZE + MOD_TARN_CMD_FOOTER_SIZE &&
                         MOD_TARN_CMD_HEADER_SIZE + uint32_t{cmd[MOD_TARN_CMD_LEN_OFFSET]} < cmd_size &&
                         cmd[MOD_TARN_CMD_TAG_OFFSET] == MOD_TARN_CMD_START &&
                         cmd[MOD_TARN_CMD_HEADER_SIZE + cmd[MOD_TARN_CMD_LEN_OFFSET]] == MOD_TARN_CMD_END;
  bus->script(in.mode, in.reply);
  const mod_tarn_err_t result = mod_tarn_send_cmd(&mod, cmd.get(), cmd_size, rpl.get(), rpl_size);
  check_result(result, cmd_valid ? expected_result(in, rpl_size) : MOD_TARN_CMD_INVLD);
  if (cmd_valid && in.mode == BUS_ANSWERS) {
    const bytes_t expected = read_bytes(in, rpl_size);
    check(rpl_size == 0 || memcmp(rpl.get(), expected.data(), rpl_size) == 0,
          "the reply is not what was read");
  }
}

void alive(const input_t& in) {
  uint8_t is_alive = SENTINEL;
  check_result(mod_tarn_get_alive(&mod, &is_alive), expected_result(in, reply_size(0)));
  check(is_alive == (mod.err == MOD_TARN_OK ? 1 : 0), "alive is not the transaction's success");
}

void info(const input_t& in) {
  mod.info.sw_version = 0xA5A5A5A5;
  const size_t size = reply_size(MOD_TARN_CMD_GET_INFO_LEN);
  check_result(mod_tarn_get_info(&mod), expected_result(in, size));
  const uint32_t bytes_2_to_5 = static_cast<uint32_t>(payload_be(in, size, 6));
  check(mod.info.sw_version == (mod.err == MOD_TARN_OK ? bytes_2_to_5 : 0xA5A5A5A5u),
        "the version is not payload bytes 2 to 5");
}

void status(const input_t& in) {
  const mod_tarn_status_t before = {7, 700, 'x', 70, 7000, 7};
  mod.status = before;
  const size_t size = reply_size(MOD_TARN_CMD_GET_STATUS_LEN);
  check_result(mod_tarn_get_status(&mod), expected_result(in, size));
  const mod_tarn_status_t& now = mod.status;
  if (mod.err != MOD_TARN_OK) {
    check(now.lock == before.lock && now.video_height == before.video_height &&
              now.video_scan_mode == before.video_scan_mode &&
              now.video_frame_rate == before.video_frame_rate &&
              now.max_output_bitrate_kbps == before.max_output_bitrate_kbps &&
              now.overflow == before.overflow,
          "a failed status read changed the status");
    return;
  }
  const bytes_t p = read_bytes(in, size);
  const uint8_t* payload = p.data() + MOD_TARN_RPL_HEADER_SIZE;
  check(now.lock == payload[0] && now.video_height == (payload[1] << 8 | payload[2]) &&
            now.video_scan_mode == static_cast<char>(payload[3]) && now.video_frame_rate == payload[4] &&
            now.max_output_bitrate_kbps == (payload[5] << 8 | payload[6]) && now.overflow == payload[7],
        "the status is not the payload's");
}

void calibration(const input_t& in) {
  int8_t i = 55;
  int8_t q = -55;
  const size_t size = reply_size(2);
  check_result(mod_tarn_get_cal(&mod, &i, &q), expected_result(in, size));
  const uint32_t iq = payload_be(in, size, 2);
  check(mod.err == MOD_TARN_OK ? (i == static_cast<int8_t>(iq >> 8) && q == static_cast<int8_t>(iq))
                               : (i == 55 && q == -55),
        "the calibration is not the payload's");
}

void level(const input_t& in) {
  int8_t dbm = 99;
  const size_t size = reply_size(1);
  check_result(mod_tarn_get_level(&mod, &dbm, FREQ_KHZ), expected_result(in, size));
  const int8_t expected =
      mod.err == MOD_TARN_OK ? static_cast<int8_t>(payload_be(in, size, 1) - 5) : int8_t{99};
  check(dbm == expected, "the level is not the payload's less its offset");
}

/* Commands whose reply carries nothing. */
void command(const input_t& in, mod_tarn_err_t result) {
  check_result(result, expected_result(in, reply_size(0)));
}

typedef void (*operation_t)(const input_t& in);

constexpr operation_t operations[] = {
    alive,
    info,
    status,
    calibration,
    level,
    [](const input_t& in) { number_getter<uint32_t>(in, mod_tarn_get_frequency, 4); },
    [](const input_t& in) { number_getter<uint16_t>(in, mod_tarn_get_sid, 2); },
    [](const input_t& in) { number_getter<uint8_t>(in, mod_tarn_get_bandwidth, 1); },
    [](const input_t& in) { number_getter<uint32_t>(in, mod_tarn_get_private_data_specifier, 4); },
    [](const input_t& in) { number_getter<mod_tarn_output_type_t>(in, mod_tarn_get_output_type, 1); },
    [](const input_t& in) { number_getter<mod_tarn_constellation_t>(in, mod_tarn_get_constellation, 1); },
    [](const input_t& in) { slot_number_getter<uint16_t>(in, mod_tarn_get_extra_service_info_sid, 2); },
    [](const input_t& in) { slot_number_getter<uint8_t>(in, mod_tarn_get_extra_service_info_enable, 1); },
    [](const input_t& in) { name_getter<NAME_SIZE>(in, mod_tarn_get_service_name); },
    [](const input_t& in) { name_getter<4>(in, mod_tarn_get_network_name); },
    [](const input_t& in) { name_getter<1>(in, mod_tarn_get_service_name); },
    extra_name_getter,
    [](const input_t& in) { command(in, mod_tarn_apply(&mod)); },
    [](const input_t& in) { command(in, mod_tarn_factory_reset(&mod)); },
    [](const input_t& in) { command(in, mod_tarn_set_frequency(&mod, FREQ_KHZ)); },
    [](const input_t& in) { command(in, mod_tarn_set_service_name(&mod, "a name longer than fifteen")); },
    [](const input_t& in) { command(in, mod_tarn_set_cal(&mod, -3, 4, 1)); },
    [](const input_t& in) { command(in, mod_tarn_set_hw_debug_code(&mod, 9, 1)); },
};
constexpr size_t OPERATION_COUNT = sizeof(operations) / sizeof(operations[0]);

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::make_box_root();
  bus = new ScriptedBus;
  const std::string path = fuzz::root_path("/dev/i2c-0");
  if (!bus->start(path)) fuzz::die("could not serve the bus");
  if (i2c_init(&i2c, "i2c_0", path.c_str()) != I2C_OK) fuzz::die("could not open the bus");
  mod_tarn_init(&mod, "mod_tarn_0", MODULE_ADDR, &i2c);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Run run;
  if (size < 2) return 0;
  const size_t op = data[0] % (OPERATION_COUNT + 1);
  const bus_mode_t mode = static_cast<bus_mode_t>(data[1] % BUS_MODES);
  if (op == OPERATION_COUNT) {
    raw_transaction(mode, data + 2, size - 2);
    return 0;
  }
  const input_t in = {mode, bytes_t(data + 2, data + size)};
  bus->script(in.mode, in.reply);
  operations[op](in);
  return 0;
}
