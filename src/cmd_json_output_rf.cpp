#include "cmd_json_output_rf.h"

#include <string.h>

#include "cmd_json_ts.h"
#include "dbg.h"
#include "hal_output_rf.h"

namespace {

/* One word of a modulation vocabulary: the exact, case-sensitive text and its value. */
template <typename E>
struct cmd_json_output_rf_word_t {
  const char* text;
  E value;
};

/* The complete vocabularies, shared by set and get. */
constexpr cmd_json_output_rf_word_t<hal_output_type_t> cmd_json_output_rf_types[] = {
    {"dvb-t", HAL_DVB_T},   {"dvb-c", HAL_DVB_C}, {"atsc-t", HAL_ATSC_T},
    {"atsc-c", HAL_ATSC_C}, {"dtmb", HAL_DTMB},   {"isdb-t", HAL_ISDBT},
};

constexpr cmd_json_output_rf_word_t<hal_constellation_t> cmd_json_output_rf_constellations[] = {
    {"qpsk", HAL_QPSK},      {"8-vsb", HAL_8VSB},   {"16-qam", HAL_16QAM},
    {"32-qam", HAL_32QAM},   {"64-qam", HAL_64QAM}, {"128-qam", HAL_128QAM},
    {"256-qam", HAL_256QAM}, {"4-qam", HAL_4QAM},   {"4nr-qam", HAL_4NRQAM},
};

constexpr cmd_json_output_rf_word_t<hal_guardinterval_t> cmd_json_output_rf_guardintervals[] = {
    {"1/32", HAL_1_32},
    {"1/16", HAL_1_16},
    {"1/8", HAL_1_8},
    {"1/4", HAL_1_4},
};

constexpr cmd_json_output_rf_word_t<hal_coderate_t> cmd_json_output_rf_coderates[] = {
    {"1/2", HAL_1_2}, {"2/3", HAL_2_3}, {"3/4", HAL_3_4}, {"5/6", HAL_5_6},
    {"7/8", HAL_7_8}, {"0.4", HAL_0_4}, {"0.6", HAL_0_6}, {"0.8", HAL_0_8},
};

/* HAL_4K has no text, deliberately: it can be neither set nor reported. */
constexpr cmd_json_output_rf_word_t<hal_fftmode_t> cmd_json_output_rf_fftmodes[] = {
    {"2k", HAL_2K},
    {"8k", HAL_8K},
};

constexpr cmd_json_output_rf_word_t<hal_carriertype_t> cmd_json_output_rf_carriertypes[] = {
    {"multi", HAL_MULTI_CARRIER},
    {"single", HAL_SINGLE_CARRIER},
};

constexpr cmd_json_output_rf_word_t<hal_interleave_t> cmd_json_output_rf_interleaves[] = {
    {"none", HAL_INTLV_NONE},
    {"240", HAL_INTLV_240},
    {"720", HAL_INTLV_720},
};

constexpr cmd_json_output_rf_word_t<hal_syncframe_t> cmd_json_output_rf_syncframes[] = {
    {"420", HAL_SYNC_420},
    {"945", HAL_SYNC_945},
    {"595", HAL_SYNC_595},
};

hal_output_rf_t* cmd_json_rf(hal_object_t* object) { return reinterpret_cast<hal_output_rf_t*>(object); }

/* The number is cut to the field's width: limits belong to the modulator. */
template <typename Number, typename Field>
cmd_json_err_t cmd_json_output_rf_set_number(hal_err_t (*setter)(hal_output_rf_t*, Field),
                                             hal_object_t* object, json_t* j_val) {
  Number value = 0;
  cmd_json_err_t err = cmd_json_strargtonum(&value, NULL, j_val);
  if (err != CMD_JSON_OK) return err;
  return cmd_json_translate_hal_err(setter(cmd_json_rf(object), static_cast<Field>(value)));
}

template <typename Number, typename Field>
cmd_json_err_t cmd_json_output_rf_get_number(hal_err_t (*getter)(hal_output_rf_t*, Field*), const char* func,
                                             hal_object_t* object, json_t** j_val) {
  Field value{};
  if (getter(cmd_json_rf(object), &value) != HAL_OK) return CMD_JSON_UNSUCCESSFUL;
  return cmd_json_number(func, static_cast<Number>(value), j_val);
}

template <typename E, size_t N>
cmd_json_err_t cmd_json_output_rf_set_word(hal_err_t (*setter)(hal_output_rf_t*, E),
                                           const cmd_json_output_rf_word_t<E> (&words)[N],
                                           hal_object_t* object, json_t* j_val) {
  if (!json_is_string(j_val)) return CMD_JSON_ARG_FRMT_ERR;
  for (const cmd_json_output_rf_word_t<E>& word : words) {
    if (strcmp(word.text, json_string_value(j_val)) == 0)
      return cmd_json_translate_hal_err(setter(cmd_json_rf(object), word.value));
  }
  return CMD_JSON_ARG_OOB;
}

template <typename E, size_t N>
cmd_json_err_t cmd_json_output_rf_get_word(hal_err_t (*getter)(hal_output_rf_t*, E*),
                                           const cmd_json_output_rf_word_t<E> (&words)[N], const char* func,
                                           hal_object_t* object, json_t** j_val) {
  E value{};
  if (getter(cmd_json_rf(object), &value) != HAL_OK) return CMD_JSON_UNSUCCESSFUL;
  for (const cmd_json_output_rf_word_t<E>& word : words) {
    if (word.value == value) return cmd_json_text(func, word.text, j_val);
  }
  return CMD_JSON_ARG_OOB;
}

template <typename E, size_t N>
const char* cmd_json_output_rf_word_at(const cmd_json_output_rf_word_t<E> (&words)[N], size_t n) {
  return n < N ? words[n].text : NULL;
}

/* cmd_json_output_rf_set_<field> and cmd_json_output_rf_get_<field> over hal_output_rf_set_<field>
 * and hal_output_rf_get_<field>: a number read and written as `Number`, or a word of `words`
 * (then cmd_json_output_rf_words_<field> lists them). */
#define CMD_JSON_OUTPUT_RF_NUMBER(field, Number)                                                      \
  cmd_json_err_t cmd_json_output_rf_set_##field(hal_object_t* object, json_t* j_val) {                \
    return cmd_json_output_rf_set_number<Number>(hal_output_rf_set_##field, object, j_val);           \
  }                                                                                                   \
  cmd_json_err_t cmd_json_output_rf_get_##field(hal_object_t* object, json_t** j_val) {               \
    return cmd_json_output_rf_get_number<Number>(hal_output_rf_get_##field, __func__, object, j_val); \
  }

#define CMD_JSON_OUTPUT_RF_WORD(field, words)                                                      \
  cmd_json_err_t cmd_json_output_rf_set_##field(hal_object_t* object, json_t* j_val) {             \
    return cmd_json_output_rf_set_word(hal_output_rf_set_##field, words, object, j_val);           \
  }                                                                                                \
  cmd_json_err_t cmd_json_output_rf_get_##field(hal_object_t* object, json_t** j_val) {            \
    return cmd_json_output_rf_get_word(hal_output_rf_get_##field, words, __func__, object, j_val); \
  }                                                                                                \
  const char* cmd_json_output_rf_words_##field(size_t n) { return cmd_json_output_rf_word_at(words, n); }

CMD_JSON_OUTPUT_RF_WORD(type, cmd_json_output_rf_types)
CMD_JSON_OUTPUT_RF_NUMBER(frequency, uint32_t)
CMD_JSON_OUTPUT_RF_NUMBER(level, int32_t)
CMD_JSON_OUTPUT_RF_NUMBER(bandwidth, uint32_t)
CMD_JSON_OUTPUT_RF_NUMBER(symbolrate, uint32_t)
CMD_JSON_OUTPUT_RF_WORD(constellation, cmd_json_output_rf_constellations)
CMD_JSON_OUTPUT_RF_WORD(guardinterval, cmd_json_output_rf_guardintervals)
CMD_JSON_OUTPUT_RF_WORD(coderate, cmd_json_output_rf_coderates)
CMD_JSON_OUTPUT_RF_WORD(fftmode, cmd_json_output_rf_fftmodes)
CMD_JSON_OUTPUT_RF_WORD(carriertype, cmd_json_output_rf_carriertypes)
CMD_JSON_OUTPUT_RF_WORD(interleave, cmd_json_output_rf_interleaves)
CMD_JSON_OUTPUT_RF_WORD(syncframe, cmd_json_output_rf_syncframes)
CMD_JSON_OUTPUT_RF_NUMBER(enable, int32_t)

CMD_JSON_TSOUT_HANDLERS(hal_output_rf_t, cmd_json_output_rf_set_ts_ext, cmd_json_output_rf_get_ts_ext,
                        cmd_json_set_ts_ext, cmd_json_get_ts_ext)

}  // namespace

CMD_JSON_TSOUT_HANDLERS(hal_output_rf_t, cmd_json_set_output_rf_ts, cmd_json_get_output_rf_ts,
                        cmd_json_set_ts, cmd_json_get_ts)
CMD_JSON_TSOUT_HANDLERS(hal_output_rf_t, cmd_json_set_output_rf_service, cmd_json_get_output_rf_services,
                        cmd_json_ts_set_service, cmd_json_ts_get_services)

/* The modulation rows both tables share. */
// clang-format off
#define CMD_JSON_OUTPUT_RF_MOD_ROWS                                                                           \
  {"type", cmd_json_output_rf_set_type, cmd_json_output_rf_get_type, 0,                                       \
   cmd_json_output_rf_words_type},                                                                            \
  {"frequency", cmd_json_output_rf_set_frequency, cmd_json_output_rf_get_frequency, 0},                       \
  {"level", cmd_json_output_rf_set_level, cmd_json_output_rf_get_level, 0},                                   \
  {"bandwidth", cmd_json_output_rf_set_bandwidth, cmd_json_output_rf_get_bandwidth, 0},                       \
  {"symbolrate", cmd_json_output_rf_set_symbolrate, cmd_json_output_rf_get_symbolrate, 0},                    \
  {"constellation", cmd_json_output_rf_set_constellation, cmd_json_output_rf_get_constellation, 0,            \
   cmd_json_output_rf_words_constellation},                                                                   \
  {"guardinterval", cmd_json_output_rf_set_guardinterval, cmd_json_output_rf_get_guardinterval, 0,            \
   cmd_json_output_rf_words_guardinterval},                                                                   \
  {"coderate", cmd_json_output_rf_set_coderate, cmd_json_output_rf_get_coderate, 0,                           \
   cmd_json_output_rf_words_coderate},                                                                        \
  {"fftmode", cmd_json_output_rf_set_fftmode, cmd_json_output_rf_get_fftmode, 0,                              \
   cmd_json_output_rf_words_fftmode},                                                                         \
  {"carriertype", cmd_json_output_rf_set_carriertype, cmd_json_output_rf_get_carriertype, 0,                  \
   cmd_json_output_rf_words_carriertype},                                                                     \
  {"interleave", cmd_json_output_rf_set_interleave, cmd_json_output_rf_get_interleave, 0,                     \
   cmd_json_output_rf_words_interleave},                                                                      \
  {"syncframe", cmd_json_output_rf_set_syncframe, cmd_json_output_rf_get_syncframe, 0,                        \
   cmd_json_output_rf_words_syncframe},                                                                       \
  {"enabled", cmd_json_output_rf_set_enable, cmd_json_output_rf_get_enable, 0}
// clang-format on

const cmd_json_arg_t cmd_json_output_rf_ext_args[] = {
    CMD_JSON_OUTPUT_RF_MOD_ROWS,
    {"ts", cmd_json_output_rf_set_ts_ext, cmd_json_output_rf_get_ts_ext, 0, NULL, cmd_json_ts_ext_args},
    {NULL, NULL, NULL, 0},
};

const cmd_json_arg_t cmd_json_output_rf_mod_args[] = {CMD_JSON_OUTPUT_RF_MOD_ROWS, {NULL, NULL, NULL, 0}};

CMD_JSON_TABLE_HANDLERS(cmd_json_set_output_rf_ext, cmd_json_get_output_rf_ext, cmd_json_output_rf_ext_args)
CMD_JSON_TABLE_HANDLERS(cmd_json_set_output_rf_mod, cmd_json_get_output_rf_mod, cmd_json_output_rf_mod_args)

const cmd_json_arg_t cmd_json_output_rf_status_keys[] = {{"max_bitrate", NULL, NULL, 0},
                                                         {"overflow", NULL, NULL, 0},
                                                         {"bitrate", NULL, NULL, 0},
                                                         {NULL, NULL, NULL, 0}};

const cmd_json_arg_t cmd_json_output_rf_cal_keys[] = {
    {"enabled", NULL, NULL, 1}, {"i", NULL, NULL, 1}, {"q", NULL, NULL, 1}, {NULL, NULL, NULL, 0}};

cmd_json_err_t cmd_json_get_output_rf_status(hal_object_t* object, json_t** j_val) {
  hal_output_rf_t* rf = cmd_json_rf(object);
  uint32_t bitrate_kbps = 0;
  if (hal_output_rf_get_status(rf) != HAL_OK || hal_output_rf_get_bitrate(rf, &bitrate_kbps) != HAL_OK)
    return CMD_JSON_UNSUCCESSFUL;
  /* Only a flag of exactly 1 is an overflow. */
  return cmd_json_text_object(
      __func__,
      {{cmd_json_output_rf_status_keys[0].name,
        cmd_json_decimal(static_cast<uint32_t>(rf->status.max_bitrate_kbps)).text},
       {cmd_json_output_rf_status_keys[1].name, rf->status.overflow == 1 ? "yes" : "no"},
       {cmd_json_output_rf_status_keys[2].name, cmd_json_decimal(bitrate_kbps).text}},
      j_val);
}

cmd_json_err_t cmd_json_set_output_rf_cal(hal_object_t* object, json_t* j_val) {
  if (!json_is_object(j_val)) return CMD_JSON_ARG_FRMT_ERR;
  uint32_t enabled = 0;
  int32_t i = 0;
  int32_t q = 0;
  cmd_json_err_t err = cmd_json_required(__func__, &enabled, cmd_json_output_rf_cal_keys[0].name, j_val);
  if (err == CMD_JSON_OK) err = cmd_json_required(__func__, &i, cmd_json_output_rf_cal_keys[1].name, j_val);
  if (err == CMD_JSON_OK) err = cmd_json_required(__func__, &q, cmd_json_output_rf_cal_keys[2].name, j_val);
  if (err != CMD_JSON_OK) return err;
  if (hal_output_rf_set_cal(cmd_json_rf(object), static_cast<int8_t>(i), static_cast<int8_t>(q),
                            static_cast<uint8_t>(enabled)) != HAL_OK)
    return CMD_JSON_UNSUCCESSFUL;
  DBG_WRN("B");
  return CMD_JSON_OK;
}

/* The "GET CAL" trace comes first on every call, whatever follows. */
cmd_json_err_t cmd_json_get_output_rf_cal(hal_object_t* object, json_t** j_val) {
  DBG_WRN("GET CAL");
  int8_t i = 0;
  int8_t q = 0;
  if (hal_output_rf_get_cal(cmd_json_rf(object), &i, &q) != HAL_OK) return CMD_JSON_UNSUCCESSFUL;
  return cmd_json_text_object(
      __func__,
      {{cmd_json_output_rf_cal_keys[1].name, cmd_json_decimal(static_cast<int32_t>(i)).text},
       {cmd_json_output_rf_cal_keys[2].name, cmd_json_decimal(static_cast<int32_t>(q)).text}},
      j_val);
}
