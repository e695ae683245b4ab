#include "mod_tarn.h"

#include <stdio.h>
#include <string.h>

#include "dbg.h"
#include "utf8.h"

/* The command frame goes out with a short time-out; the single zero byte after it is not
 * acknowledged while the module executes the command, so waiting for it is waiting for the module,
 * which may take long: sixty times the time-out of the other transfers. */
static constexpr uint32_t MOD_TARN_CMD_TIMEOUT_MS = 500;
static constexpr uint32_t MOD_TARN_WAIT_TIMEOUT_MS = 30000;
static constexpr uint32_t MOD_TARN_RPL_TIMEOUT_MS = 500;
static constexpr uint8_t MOD_TARN_WAIT_BYTE = 0x00;

static constexpr uint32_t MOD_TARN_CMD_PAYLOAD_MAX = MOD_TARN_CMD_EXTRA_SERVICE_INFO_SERVICE_NAME_LEN;
static constexpr uint32_t MOD_TARN_CMD_SIZE_MAX =
    MOD_TARN_CMD_HEADER_SIZE + MOD_TARN_CMD_PAYLOAD_MAX + MOD_TARN_CMD_FOOTER_SIZE;
/* The longest reply payload: a name. */
static constexpr uint32_t MOD_TARN_RPL_PAYLOAD_MAX = MOD_TARN_CMD_SERVICE_NAME_LEN;
static constexpr uint32_t MOD_TARN_RPL_SIZE_MAX =
    MOD_TARN_RPL_HEADER_SIZE + MOD_TARN_RPL_PAYLOAD_MAX + MOD_TARN_RPL_FOOTER_SIZE;
static constexpr uint32_t MOD_TARN_GET_CAL_LEN = 2;

static const char* const mod_tarn_err_texts[] = {
    "hdmi ok",
    "hdmi i2c error",
    "hdmi command error",
    "hdmi command invalid",
    "hdmi command unknown",
    "hdmi command timeout",
    "hdmi command argument out of bounds",
    "hdmi reply invalid",
};

/* The driver error of each reply error byte; any other byte is MOD_TARN_CMD_ERR. */
static constexpr mod_tarn_err_t mod_tarn_rpl_errs[] = {
    MOD_TARN_OK, MOD_TARN_CMD_INVLD, MOD_TARN_CMD_UNKNOWN, MOD_TARN_CMD_TIMEOUT, MOD_TARN_CMD_OOB,
};

const char* mod_tarn_strerror(mod_tarn_t* mod) {
  static char text[MOD_TARN_STRERROR_LEN];
  const int err = mod->err;
  if (err >= 0 && static_cast<size_t>(err) < sizeof(mod_tarn_err_texts) / sizeof(mod_tarn_err_texts[0])) {
    snprintf(text, sizeof(text), "%s", mod_tarn_err_texts[err]);
  } else {
    snprintf(text, sizeof(text), "hdmi error: %d", err);
  }
  return text;
}

/* The frame checks, reading nothing beyond the bytes given: a length byte that points past them
 * makes the frame invalid. */
static bool mod_tarn_cmd_valid(const uint8_t* cmd, uint32_t cmd_size) {
  return cmd != NULL && cmd_size >= MOD_TARN_CMD_HEADER_SIZE + MOD_TARN_CMD_FOOTER_SIZE &&
         MOD_TARN_CMD_HEADER_SIZE + uint32_t{cmd[MOD_TARN_CMD_LEN_OFFSET]} < cmd_size &&
         MOD_TARN_CMD_VALID(cmd);
}

static bool mod_tarn_rpl_valid(const uint8_t* rpl, uint32_t rpl_size) {
  return rpl_size >= MOD_TARN_RPL_HEADER_SIZE + MOD_TARN_RPL_FOOTER_SIZE &&
         MOD_TARN_RPL_HEADER_SIZE + uint32_t{rpl[MOD_TARN_RPL_LEN_OFFSET]} < rpl_size &&
         MOD_TARN_RPL_VALID(rpl);
}

static mod_tarn_err_t mod_tarn_rpl_err(uint8_t err_byte) {
  return err_byte < sizeof(mod_tarn_rpl_errs) / sizeof(mod_tarn_rpl_errs[0]) ? mod_tarn_rpl_errs[err_byte]
                                                                             : MOD_TARN_CMD_ERR;
}

/* Open, command, wait for the module, reply: false at the first transfer that fails. */
static bool mod_tarn_transfer(mod_tarn_t* mod, const uint8_t* cmd, uint32_t cmd_size, uint8_t* rpl,
                              uint32_t rpl_size) {
  return i2c_open(mod->i2c, mod->i2c_addr) == I2C_OK &&
         i2c_write(mod->i2c, cmd, cmd_size, MOD_TARN_CMD_TIMEOUT_MS) == I2C_OK &&
         i2c_write(mod->i2c, &MOD_TARN_WAIT_BYTE, 1, MOD_TARN_WAIT_TIMEOUT_MS) == I2C_OK &&
         i2c_read(mod->i2c, rpl, rpl_size, MOD_TARN_RPL_TIMEOUT_MS) == I2C_OK;
}

/* The checks and the transfer in their order; the first that fails gives the error. */
static mod_tarn_err_t mod_tarn_exchange(mod_tarn_t* mod, const uint8_t* cmd, uint32_t cmd_size, uint8_t* rpl,
                                        uint32_t rpl_size) {
  if (!mod_tarn_cmd_valid(cmd, cmd_size)) return MOD_TARN_CMD_INVLD;
  if (rpl == NULL) return MOD_TARN_RPL_INVLD;
  if (!mod_tarn_transfer(mod, cmd, cmd_size, rpl, rpl_size)) return MOD_TARN_I2C_ERR;
  if (!mod_tarn_rpl_valid(rpl, rpl_size)) return MOD_TARN_RPL_INVLD;
  return mod_tarn_rpl_err(rpl[MOD_TARN_RPL_ERR_OFFSET]);
}

mod_tarn_err_t mod_tarn_send_cmd(mod_tarn_t* mod, const uint8_t* cmd, uint32_t cmd_size, uint8_t* rpl,
                                 uint32_t rpl_size) {
  mod->err = mod_tarn_exchange(mod, cmd, cmd_size, rpl, rpl_size);
  /* Also after a failure before the bus was opened: closing a closed bus is harmless. */
  if (i2c_close(mod->i2c) != I2C_OK) mod->err = MOD_TARN_I2C_ERR;
  return mod->err;
}

static void mod_tarn_put_be(uint8_t* bytes, uint32_t value, uint32_t size) {
  for (uint32_t i = 0; i < size; i++) bytes[i] = static_cast<uint8_t>(value >> (8 * (size - 1 - i)));
}

static uint32_t mod_tarn_get_be(const uint8_t* bytes, uint32_t size) {
  uint32_t value = 0;
  for (uint32_t i = 0; i < size; i++) value = value << 8 | bytes[i];
  return value;
}

/* The shape of every command: the frame around `payload`, one transaction reading a reply with
 * `rpl_payload_size` payload bytes into `rpl` (room for MOD_TARN_RPL_SIZE_MAX), and the warning
 * "<name> - <what failed> (<error>)" in the name of `func`. A module that does not know the command
 * is left unmentioned: older firmware is driven with the full command set. */
static mod_tarn_err_t mod_tarn_command(mod_tarn_t* mod, const char* func, const char* failed, uint8_t code,
                                       const uint8_t* payload, uint32_t payload_size, uint8_t* rpl,
                                       uint32_t rpl_payload_size) {
  uint8_t cmd[MOD_TARN_CMD_SIZE_MAX];
  cmd[MOD_TARN_CMD_TAG_OFFSET] = MOD_TARN_CMD_START;
  cmd[MOD_TARN_CMD_CODE_OFFSET] = code;
  cmd[MOD_TARN_CMD_LEN_OFFSET] = static_cast<uint8_t>(payload_size);
  if (payload_size > 0) memcpy(cmd + MOD_TARN_CMD_HEADER_SIZE, payload, payload_size);
  cmd[MOD_TARN_CMD_HEADER_SIZE + payload_size] = MOD_TARN_CMD_END;
  const mod_tarn_err_t err =
      mod_tarn_send_cmd(mod, cmd, MOD_TARN_CMD_HEADER_SIZE + payload_size + MOD_TARN_CMD_FOOTER_SIZE, rpl,
                        MOD_TARN_RPL_HEADER_SIZE + rpl_payload_size + MOD_TARN_RPL_FOOTER_SIZE);
  if (err != MOD_TARN_OK && err != MOD_TARN_CMD_UNKNOWN) {
    DBG_WRN_AT(func, "%s - %s (%s)", mod->name, failed, mod_tarn_strerror(mod));
  }
  return err;
}

/* A command without payload. */
static mod_tarn_err_t mod_tarn_query(mod_tarn_t* mod, const char* func, const char* failed, uint8_t code,
                                     uint8_t* rpl, uint32_t rpl_payload_size) {
  return mod_tarn_command(mod, func, failed, code, NULL, 0, rpl, rpl_payload_size);
}

mod_tarn_err_t mod_tarn_init(mod_tarn_t* mod, const char* name, uint8_t i2c_addr, i2c_t* i2c) {
  DBG_MSG("%s - Initializing...", name);
  snprintf(mod->name, sizeof(mod->name), "%s", name);
  mod->i2c = i2c;
  mod->i2c_addr = i2c_addr;
  mod->level_offset_std = 10;
  mod->level_offset_below_500 = 5;
  mod->level_offset_between_500_and_1000 = 8;
  mod_tarn_get_info(mod);
  const uint32_t version = mod->info.sw_version;
  DBG_MSG("%s - SW Version > %c%d.%d.%d", mod->name, static_cast<char>(version >> 24),
          static_cast<int>((version >> 16) & 0xFF), static_cast<int>((version >> 8) & 0xFF),
          static_cast<int>(version & 0xFF));
  mod->err = MOD_TARN_OK;
  return mod->err;
}

mod_tarn_err_t mod_tarn_get_alive(mod_tarn_t* mod, uint8_t* alive) {
  uint8_t rpl[MOD_TARN_RPL_SIZE_MAX];
  *alive = mod_tarn_query(mod, __func__, "Not alive", MOD_TARN_CMD_GET_ALIVE, rpl, 0) == MOD_TARN_OK;
  return mod->err;
}

/* The first two payload bytes are the module's own business. */
mod_tarn_err_t mod_tarn_get_info(mod_tarn_t* mod) {
  uint8_t rpl[MOD_TARN_RPL_SIZE_MAX];
  if (mod_tarn_query(mod, __func__, "Could not get info", MOD_TARN_CMD_GET_INFO, rpl,
                     MOD_TARN_CMD_GET_INFO_LEN) == MOD_TARN_OK) {
    mod->info.sw_version = mod_tarn_get_be(rpl + MOD_TARN_RPL_HEADER_SIZE + 2, 4);
  }
  return mod->err;
}

/* Its warning has the words of the information command. */
mod_tarn_err_t mod_tarn_get_status(mod_tarn_t* mod) {
  uint8_t rpl[MOD_TARN_RPL_SIZE_MAX];
  if (mod_tarn_query(mod, __func__, "Could not get info", MOD_TARN_CMD_GET_STATUS, rpl,
                     MOD_TARN_CMD_GET_STATUS_LEN) != MOD_TARN_OK) {
    return mod->err;
  }
  const uint8_t* payload = rpl + MOD_TARN_RPL_HEADER_SIZE;
  mod->status.lock = payload[0];
  mod->status.video_height = static_cast<uint16_t>(mod_tarn_get_be(payload + 1, 2));
  mod->status.video_scan_mode = static_cast<char>(payload[3]);
  mod->status.video_frame_rate = payload[4];
  mod->status.max_output_bitrate_kbps = static_cast<uint16_t>(mod_tarn_get_be(payload + 5, 2));
  mod->status.overflow = payload[7];
  return mod->err;
}

mod_tarn_err_t mod_tarn_apply(mod_tarn_t* mod) {
  uint8_t rpl[MOD_TARN_RPL_SIZE_MAX];
  return mod_tarn_query(mod, __func__, "Could not apply", MOD_TARN_CMD_APPLY, rpl, 0);
}

mod_tarn_err_t mod_tarn_factory_reset(mod_tarn_t* mod) {
  uint8_t rpl[MOD_TARN_RPL_SIZE_MAX];
  return mod_tarn_query(mod, __func__, "Could not reset to factory defaults", MOD_TARN_CMD_FACTORY_RESET, rpl,
                        0);
}

/* The module wants the enable flag first. */
mod_tarn_err_t mod_tarn_set_cal(mod_tarn_t* mod, int8_t i, int8_t q, uint8_t enable) {
  const uint8_t payload[MOD_TARN_CMD_CAL_LEN] = {enable, static_cast<uint8_t>(i), static_cast<uint8_t>(q)};
  uint8_t rpl[MOD_TARN_RPL_SIZE_MAX];
  return mod_tarn_command(mod, __func__, "Could not set calibration", MOD_TARN_CMD_SET_CAL, payload,
                          sizeof(payload), rpl, 0);
}

mod_tarn_err_t mod_tarn_get_cal(mod_tarn_t* mod, int8_t* i, int8_t* q) {
  uint8_t rpl[MOD_TARN_RPL_SIZE_MAX];
  if (mod_tarn_query(mod, __func__, "Could not get calibration info", MOD_TARN_CMD_GET_CAL, rpl,
                     MOD_TARN_GET_CAL_LEN) == MOD_TARN_OK) {
    *i = static_cast<int8_t>(rpl[MOD_TARN_RPL_HEADER_SIZE]);
    *q = static_cast<int8_t>(rpl[MOD_TARN_RPL_HEADER_SIZE + 1]);
  }
  return mod->err;
}

/* One parameter: its set and get codes, the length of the set payload, whether that payload starts
 * with a slot byte (the slot, or the debug code, that a get sends alone), and what its warnings say.
 * The value takes the rest of the set payload: a number of that many bytes, or a name of up to that
 * many characters. */
typedef struct mod_tarn_param_t {
  uint8_t set_code;
  uint8_t get_code;
  uint8_t len;
  uint8_t slot;
  const char* set_failed;
  const char* get_failed;
} mod_tarn_param_t;

static constexpr uint32_t mod_tarn_value_size(const mod_tarn_param_t& param) {
  return param.len - param.slot;
}

static mod_tarn_err_t mod_tarn_param_set(mod_tarn_t* mod, const char* func, const mod_tarn_param_t& param,
                                         uint8_t slot, const uint8_t* value, uint32_t value_size) {
  uint8_t payload[MOD_TARN_CMD_PAYLOAD_MAX];
  payload[0] = slot;
  if (value_size > 0) memcpy(payload + param.slot, value, value_size);
  uint8_t rpl[MOD_TARN_RPL_SIZE_MAX];
  return mod_tarn_command(mod, func, param.set_failed, param.set_code, payload, param.slot + value_size, rpl,
                          0);
}

/* The reply carries the value alone, also for a slot. */
static mod_tarn_err_t mod_tarn_param_get(mod_tarn_t* mod, const char* func, const mod_tarn_param_t& param,
                                         uint8_t slot, uint8_t* rpl) {
  return mod_tarn_command(mod, func, param.get_failed, param.get_code, &slot, param.slot, rpl,
                          mod_tarn_value_size(param));
}

/* Numbers go big-endian, in as many bytes as the parameter has; enumerations by value, negative
 * figures in two's complement. */
template <typename T>
static mod_tarn_err_t mod_tarn_set_number(mod_tarn_t* mod, const char* func, const mod_tarn_param_t& param,
                                          uint8_t slot, T value) {
  uint8_t bytes[sizeof(uint32_t)];
  mod_tarn_put_be(bytes, static_cast<uint32_t>(value), mod_tarn_value_size(param));
  return mod_tarn_param_set(mod, func, param, slot, bytes, mod_tarn_value_size(param));
}

template <typename T>
static mod_tarn_err_t mod_tarn_get_number(mod_tarn_t* mod, const char* func, const mod_tarn_param_t& param,
                                          uint8_t slot, T* value) {
  uint8_t rpl[MOD_TARN_RPL_SIZE_MAX];
  const mod_tarn_err_t err = mod_tarn_param_get(mod, func, param, slot, rpl);
  if (err == MOD_TARN_OK) {
    *value = static_cast<T>(mod_tarn_get_be(rpl + MOD_TARN_RPL_HEADER_SIZE, mod_tarn_value_size(param)));
  }
  return err;
}

/* Longer names are cut silently, between characters; the terminator is not sent. */
static mod_tarn_err_t mod_tarn_set_text(mod_tarn_t* mod, const char* func, const mod_tarn_param_t& param,
                                        uint8_t slot, const char* text) {
  const uint32_t max = mod_tarn_value_size(param);
  const uint32_t length = static_cast<uint32_t>(utf8_cut(text, strnlen(text, max + 1), max));
  return mod_tarn_param_set(mod, func, param, slot, reinterpret_cast<const uint8_t*>(text), length);
}

/* The reply's payload, as long as its length byte says, as a NUL-terminated text cut to `size`
 * between characters. */
static mod_tarn_err_t mod_tarn_get_text(mod_tarn_t* mod, const char* func, const mod_tarn_param_t& param,
                                        uint8_t slot, char* text, size_t size) {
  uint8_t rpl[MOD_TARN_RPL_SIZE_MAX];
  if (mod_tarn_param_get(mod, func, param, slot, rpl) == MOD_TARN_OK && size > 0) {
    const char* payload = reinterpret_cast<const char*>(rpl + MOD_TARN_RPL_HEADER_SIZE);
    const size_t length = utf8_cut(payload, rpl[MOD_TARN_RPL_LEN_OFFSET], size - 1);
    memcpy(text, payload, length);
    text[length] = '\0';
  }
  return mod->err;
}

/* The row of a parameter from the stem of its macros, without (0) or with (1) a slot byte. */
#define MOD_TARN_PARAM(stem, slot, set_words, get_words)                               \
  {                                                                                    \
    MOD_TARN_CMD_SET_##stem, MOD_TARN_CMD_GET_##stem, MOD_TARN_CMD_##stem##_LEN, slot, \
        "Could not " set_words, "Could not " get_words                                 \
  }

// NOLINTBEGIN(bugprone-macro-parentheses): T names a type, which takes no parentheses
/* The operations mod_tarn_set_<name> and mod_tarn_get_<name> of a parameter holding one number. */
#define MOD_TARN_NUMBER(name, T, stem, set_words, get_words)                                               \
  static constexpr mod_tarn_param_t mod_tarn_param_##name = MOD_TARN_PARAM(stem, 0, set_words, get_words); \
  mod_tarn_err_t mod_tarn_set_##name(mod_tarn_t* mod, T value) {                                           \
    return mod_tarn_set_number(mod, __func__, mod_tarn_param_##name, 0, value);                            \
  }                                                                                                        \
  mod_tarn_err_t mod_tarn_get_##name(mod_tarn_t* mod, T* value) {                                          \
    return mod_tarn_get_number(mod, __func__, mod_tarn_param_##name, 0, value);                            \
  }

/* The same for a number kept per slot (or per debug code). */
#define MOD_TARN_SLOT_NUMBER(name, T, stem, set_words, get_words)                                          \
  static constexpr mod_tarn_param_t mod_tarn_param_##name = MOD_TARN_PARAM(stem, 1, set_words, get_words); \
  mod_tarn_err_t mod_tarn_set_##name(mod_tarn_t* mod, uint8_t id, T value) {                               \
    return mod_tarn_set_number(mod, __func__, mod_tarn_param_##name, id, value);                           \
  }                                                                                                        \
  mod_tarn_err_t mod_tarn_get_##name(mod_tarn_t* mod, uint8_t id, T* value) {                              \
    return mod_tarn_get_number(mod, __func__, mod_tarn_param_##name, id, value);                           \
  }
// NOLINTEND(bugprone-macro-parentheses)

#define MOD_TARN_TEXT(name, stem, set_words, get_words)                                                    \
  static constexpr mod_tarn_param_t mod_tarn_param_##name = MOD_TARN_PARAM(stem, 0, set_words, get_words); \
  mod_tarn_err_t mod_tarn_set_##name(mod_tarn_t* mod, const char* text) {                                  \
    return mod_tarn_set_text(mod, __func__, mod_tarn_param_##name, 0, text);                               \
  }                                                                                                        \
  mod_tarn_err_t mod_tarn_get_##name(mod_tarn_t* mod, char* text, size_t size) {                           \
    return mod_tarn_get_text(mod, __func__, mod_tarn_param_##name, 0, text, size);                         \
  }

#define MOD_TARN_SLOT_TEXT(name, stem, set_words, get_words)                                               \
  static constexpr mod_tarn_param_t mod_tarn_param_##name = MOD_TARN_PARAM(stem, 1, set_words, get_words); \
  mod_tarn_err_t mod_tarn_set_##name(mod_tarn_t* mod, uint8_t id, const char* text) {                      \
    return mod_tarn_set_text(mod, __func__, mod_tarn_param_##name, id, text);                              \
  }                                                                                                        \
  mod_tarn_err_t mod_tarn_get_##name(mod_tarn_t* mod, uint8_t id, char* text, size_t size) {               \
    return mod_tarn_get_text(mod, __func__, mod_tarn_param_##name, id, text, size);                        \
  }

/* Every parameter but the level: its name, value type, macro stem and the words of its two warnings.
 * The words differ between some set and get pairs; operators search the logs for them as they are. */
MOD_TARN_NUMBER(output_type, mod_tarn_output_type_t, OUTPUT_TYPE, "set output type", "get output type")
MOD_TARN_NUMBER(frequency, uint32_t, FREQ, "set frequency", "get frequency")
MOD_TARN_NUMBER(bandwidth, uint8_t, BW, "set bandwidth", "get bandwidth")
MOD_TARN_NUMBER(symbolrate, uint16_t, SYMBOLRATE, "set symbol rate", "get symbol rate")
MOD_TARN_NUMBER(constellation, mod_tarn_constellation_t, CONSTELLATION, "set constellation",
                "get constellation")
MOD_TARN_NUMBER(guardinterval, mod_tarn_guardinterval_t, GUARDINTERVAL, "set guard interval",
                "get guard interval")
MOD_TARN_NUMBER(coderate, mod_tarn_coderate_t, CODERATE, "set code rate", "get code rate")
MOD_TARN_NUMBER(fftmode, mod_tarn_fftmode_t, FFTMODE, "set FFT mode", "get FFT mode")
MOD_TARN_NUMBER(carriertype, mod_tarn_carriertype_t, CARRIERTYPE, "set carrier type", "get carrier type")
MOD_TARN_NUMBER(interleave, mod_tarn_interleave_t, INTERLEAVE, "set interleave", "get interleave")
MOD_TARN_NUMBER(syncframe, mod_tarn_syncframe_t, SYNCFRAME, "set sync frame", "get sync frame")
MOD_TARN_NUMBER(video_bitrate, uint16_t, VIDEO_BITRATE, "set video bitrate", "get video bitrate")
MOD_TARN_NUMBER(video_gopsize, uint8_t, VIDEO_GOPSIZE, "set video GOP size", "get video GOP size")
MOD_TARN_NUMBER(audio_stream_type, mod_tarn_stream_type_t, AUDIO_ENCODING_TYPE, "set audio encoding type",
                "get audio encoding type")
MOD_TARN_NUMBER(audio_bitrate, uint16_t, AUDIO_BITRATE, "set audio bitrate", "get audio bitrate")
MOD_TARN_NUMBER(sid, uint16_t, SID, "set SID", "get SID")
MOD_TARN_NUMBER(tsid, uint16_t, TSID, "set TSID", "get TSID")
MOD_TARN_NUMBER(onid, uint16_t, ONID, "set ONID", "get ONID")
MOD_TARN_NUMBER(nid, uint16_t, NID, "set NID", "get NID")
MOD_TARN_NUMBER(private_data_specifier, uint32_t, PRV_DATA_SPEC, "set private data specifier",
                "get private data specifier")
MOD_TARN_NUMBER(lcn, uint16_t, LCN, "set LCN", "get LCN")
MOD_TARN_TEXT(service_name, SERVICE_NAME, "set service name", "get service name")
MOD_TARN_TEXT(network_name, NETWORK_NAME, "set network name", "get network name")
MOD_TARN_NUMBER(network_version, uint8_t, NETWORK_VERSION, "set network version", "get network version")
MOD_TARN_NUMBER(pmt_pid, uint16_t, PMT_PID, "set PMT PID", "get PMT PID")
MOD_TARN_NUMBER(video_pid, uint16_t, VIDEO_PID, "set video PID", "get video PID")
MOD_TARN_NUMBER(audio_pid, uint16_t, AUDIO_PID, "set audio PID", "get audio PID")
MOD_TARN_SLOT_NUMBER(extra_service_info_enable, uint8_t, EXTRA_SERVICE_INFO_ENABLE,
                     "set extra service enable", "get extra service enable")
MOD_TARN_SLOT_NUMBER(extra_service_info_sid, uint16_t, EXTRA_SERVICE_INFO_SID, "set extra service SID",
                     "get extra service SID")
MOD_TARN_SLOT_NUMBER(extra_service_info_lcn, uint16_t, EXTRA_SERVICE_INFO_LCN, "set extra service info LCN",
                     "get extra service info LCN")
MOD_TARN_SLOT_TEXT(extra_service_info_service_name, EXTRA_SERVICE_INFO_SERVICE_NAME,
                   "set extra info service name", "get extra info service name")
MOD_TARN_SLOT_NUMBER(extra_service_info_pmt, uint16_t, EXTRA_SERVICE_INFO_PMT_PID, "set extra info PMT PID",
                     "get extra info PMT PID")
MOD_TARN_SLOT_NUMBER(extra_service_info_video_pid, uint16_t, EXTRA_SERVICE_INFO_VIDEO_PID,
                     "set extra info video PID", "get extra service info video PID")
MOD_TARN_SLOT_NUMBER(extra_service_info_audio_pid, uint16_t, EXTRA_SERVICE_INFO_AUDIO_PID,
                     "set extra service info audio PID", "get extra service info audio PID")
MOD_TARN_SLOT_NUMBER(extra_service_info_audio_stream_type, mod_tarn_stream_type_t,
                     EXTRA_SERVICE_INFO_AUDIO_TYPE, "set extra service info audio encoding type",
                     "get extra service audio encoding type")
MOD_TARN_NUMBER(rf_out_enable, uint8_t, RF_OUT_ENABLE, "set RF out enable", "get RF out enable")
MOD_TARN_SLOT_NUMBER(hw_debug_code, uint8_t, HW_DEBUG_CODE, "set HW debug code enable", "get HW code enable")

static constexpr mod_tarn_param_t mod_tarn_param_level = MOD_TARN_PARAM(LEVEL, 0, "set level", "get level");

/* The correction of the RF output at the frequency, in kHz. */
static int8_t mod_tarn_level_offset(const mod_tarn_t* mod, uint32_t freq) {
  if (freq <= 500000) return mod->level_offset_below_500;
  if (freq <= 999999) return mod->level_offset_between_500_and_1000;
  return mod->level_offset_std;
}

/* The level byte wraps on 8 bits; nothing is clamped. */
mod_tarn_err_t mod_tarn_set_level(mod_tarn_t* mod, int8_t level_dbm, uint32_t freq) {
  const uint8_t level = static_cast<uint8_t>(level_dbm + mod_tarn_level_offset(mod, freq));
  return mod_tarn_set_number(mod, __func__, mod_tarn_param_level, 0, level);
}

mod_tarn_err_t mod_tarn_get_level(mod_tarn_t* mod, int8_t* level_dbm, uint32_t freq) {
  uint8_t level;
  if (mod_tarn_get_number(mod, __func__, mod_tarn_param_level, 0, &level) == MOD_TARN_OK) {
    *level_dbm = static_cast<int8_t>(level - mod_tarn_level_offset(mod, freq));
  }
  return mod->err;
}
