#ifndef MOD_TARN_H
#define MOD_TARN_H

#include <stddef.h>
#include <stdint.h>

#include "i2c.h"

/* The command protocol of the HDMI encoder/modulator modules: the daemon writes one command frame,
 * waits until the module has executed it and reads one reply frame. */

#define MOD_TARN_NAME_LEN 64
#define MOD_TARN_STRERROR_LEN 64
#define MOD_TARN_EXTRA_SERVICE_INFO_SLOTS 3

/* Command frame: '#', code, payload length n, n payload bytes, '\r'. Numbers are big-endian,
 * strings go without terminator. */
#define MOD_TARN_CMD_START 0x23
#define MOD_TARN_CMD_END 0x0D
#define MOD_TARN_CMD_TAG_OFFSET 0
#define MOD_TARN_CMD_CODE_OFFSET 1
#define MOD_TARN_CMD_LEN_OFFSET 2
#define MOD_TARN_CMD_HEADER_SIZE 3
#define MOD_TARN_CMD_FOOTER_SIZE 1

/* Reply frame: '#', code echoed, error byte, payload length m, m payload bytes, '\r'. */
#define MOD_TARN_RPL_START 0x23
#define MOD_TARN_RPL_END 0x0D
#define MOD_TARN_RPL_TAG_OFFSET 0
#define MOD_TARN_RPL_CODE_OFFSET 1
#define MOD_TARN_RPL_ERR_OFFSET 2
#define MOD_TARN_RPL_LEN_OFFSET 3
#define MOD_TARN_RPL_HEADER_SIZE 4
#define MOD_TARN_RPL_FOOTER_SIZE 1

/* Neither the echoed code nor the payload length is compared with what was asked for. These read
 * the byte the length points at: the driver checks first that it lies within the frame. */
#define MOD_TARN_CMD_VALID(cmd)                                             \
  ((cmd) != NULL && (cmd)[MOD_TARN_CMD_TAG_OFFSET] == MOD_TARN_CMD_START && \
   (cmd)[MOD_TARN_CMD_HEADER_SIZE + (cmd)[MOD_TARN_CMD_LEN_OFFSET]] == MOD_TARN_CMD_END)
#define MOD_TARN_RPL_VALID(rpl)                            \
  ((rpl)[MOD_TARN_RPL_TAG_OFFSET] == MOD_TARN_RPL_START && \
   (rpl)[MOD_TARN_RPL_HEADER_SIZE + (rpl)[MOD_TARN_RPL_LEN_OFFSET]] == MOD_TARN_RPL_END)

/* Commands that are not parameters. */
#define MOD_TARN_CMD_GET_ALIVE 0x00
#define MOD_TARN_CMD_GET_INFO 0xFF
#define MOD_TARN_CMD_GET_INFO_LEN 6
#define MOD_TARN_CMD_GET_STATUS 0xFE
#define MOD_TARN_CMD_GET_STATUS_LEN 8
#define MOD_TARN_CMD_APPLY 0x70
#define MOD_TARN_CMD_APPLY_LEN 0
#define MOD_TARN_CMD_REBOOT 0x71
#define MOD_TARN_CMD_REBOOT_LEN 0
#define MOD_TARN_CMD_FACTORY_RESET 0x72
#define MOD_TARN_CMD_FACTORY_RESET_LEN 0
#define MOD_TARN_CMD_SET_CAL 0x61
#define MOD_TARN_CMD_GET_CAL 0xE1
#define MOD_TARN_CMD_CAL_LEN 3
#define MOD_TARN_CMD_SET_LEVEL_UNIT 0x60
#define MOD_TARN_CMD_GET_LEVEL_UNIT 0xE0
#define MOD_TARN_CMD_LEVEL_UNIT_LEN 1
#define MOD_TARN_CMD_SET_PNPHASE 0x0D
#define MOD_TARN_CMD_GET_PNPHASE 0x8D
#define MOD_TARN_CMD_PNPHASE_LEN 1

/* Parameters: the get code is the set code plus 0x80; the length is the set command's payload. */
#define MOD_TARN_CMD_SET_OUTPUT_TYPE 0x01
#define MOD_TARN_CMD_GET_OUTPUT_TYPE 0x81
#define MOD_TARN_CMD_OUTPUT_TYPE_LEN 1
#define MOD_TARN_CMD_SET_LEVEL 0x02
#define MOD_TARN_CMD_GET_LEVEL 0x82
#define MOD_TARN_CMD_LEVEL_LEN 1
#define MOD_TARN_CMD_SET_FREQ 0x03
#define MOD_TARN_CMD_GET_FREQ 0x83
#define MOD_TARN_CMD_FREQ_LEN 4
#define MOD_TARN_CMD_SET_BW 0x04
#define MOD_TARN_CMD_GET_BW 0x84
#define MOD_TARN_CMD_BW_LEN 1
#define MOD_TARN_CMD_SET_SYMBOLRATE 0x05
#define MOD_TARN_CMD_GET_SYMBOLRATE 0x85
#define MOD_TARN_CMD_SYMBOLRATE_LEN 2
#define MOD_TARN_CMD_SET_CONSTELLATION 0x06
#define MOD_TARN_CMD_GET_CONSTELLATION 0x86
#define MOD_TARN_CMD_CONSTELLATION_LEN 1
#define MOD_TARN_CMD_SET_GUARDINTERVAL 0x07
#define MOD_TARN_CMD_GET_GUARDINTERVAL 0x87
#define MOD_TARN_CMD_GUARDINTERVAL_LEN 1
#define MOD_TARN_CMD_SET_CODERATE 0x08
#define MOD_TARN_CMD_GET_CODERATE 0x88
#define MOD_TARN_CMD_CODERATE_LEN 1
#define MOD_TARN_CMD_SET_FFTMODE 0x09
#define MOD_TARN_CMD_GET_FFTMODE 0x89
#define MOD_TARN_CMD_FFTMODE_LEN 1
#define MOD_TARN_CMD_SET_CARRIERTYPE 0x0A
#define MOD_TARN_CMD_GET_CARRIERTYPE 0x8A
#define MOD_TARN_CMD_CARRIERTYPE_LEN 1
#define MOD_TARN_CMD_SET_INTERLEAVE 0x0B
#define MOD_TARN_CMD_GET_INTERLEAVE 0x8B
#define MOD_TARN_CMD_INTERLEAVE_LEN 1
#define MOD_TARN_CMD_SET_SYNCFRAME 0x0C
#define MOD_TARN_CMD_GET_SYNCFRAME 0x8C
#define MOD_TARN_CMD_SYNCFRAME_LEN 1
#define MOD_TARN_CMD_SET_VIDEO_BITRATE 0x0E
#define MOD_TARN_CMD_GET_VIDEO_BITRATE 0x8E
#define MOD_TARN_CMD_VIDEO_BITRATE_LEN 2
#define MOD_TARN_CMD_SET_VIDEO_GOPSIZE 0x0F
#define MOD_TARN_CMD_GET_VIDEO_GOPSIZE 0x8F
#define MOD_TARN_CMD_VIDEO_GOPSIZE_LEN 1
#define MOD_TARN_CMD_SET_AUDIO_ENCODING_TYPE 0x10
#define MOD_TARN_CMD_GET_AUDIO_ENCODING_TYPE 0x90
#define MOD_TARN_CMD_AUDIO_ENCODING_TYPE_LEN 1
#define MOD_TARN_CMD_SET_AUDIO_BITRATE 0x11
#define MOD_TARN_CMD_GET_AUDIO_BITRATE 0x91
#define MOD_TARN_CMD_AUDIO_BITRATE_LEN 2
#define MOD_TARN_CMD_SET_SID 0x12
#define MOD_TARN_CMD_GET_SID 0x92
#define MOD_TARN_CMD_SID_LEN 2
#define MOD_TARN_CMD_SET_TSID 0x13
#define MOD_TARN_CMD_GET_TSID 0x93
#define MOD_TARN_CMD_TSID_LEN 2
#define MOD_TARN_CMD_SET_ONID 0x14
#define MOD_TARN_CMD_GET_ONID 0x94
#define MOD_TARN_CMD_ONID_LEN 2
#define MOD_TARN_CMD_SET_NID 0x15
#define MOD_TARN_CMD_GET_NID 0x95
#define MOD_TARN_CMD_NID_LEN 2
#define MOD_TARN_CMD_SET_PRV_DATA_SPEC 0x16
#define MOD_TARN_CMD_GET_PRV_DATA_SPEC 0x96
#define MOD_TARN_CMD_PRV_DATA_SPEC_LEN 4
#define MOD_TARN_CMD_SET_LCN 0x17
#define MOD_TARN_CMD_GET_LCN 0x97
#define MOD_TARN_CMD_LCN_LEN 2
#define MOD_TARN_CMD_SET_SERVICE_NAME 0x18
#define MOD_TARN_CMD_GET_SERVICE_NAME 0x98
#define MOD_TARN_CMD_SERVICE_NAME_LEN 15
#define MOD_TARN_CMD_SET_NETWORK_NAME 0x19
#define MOD_TARN_CMD_GET_NETWORK_NAME 0x99
#define MOD_TARN_CMD_NETWORK_NAME_LEN 15
#define MOD_TARN_CMD_SET_NETWORK_VERSION 0x1A
#define MOD_TARN_CMD_GET_NETWORK_VERSION 0x9A
#define MOD_TARN_CMD_NETWORK_VERSION_LEN 1
#define MOD_TARN_CMD_SET_PMT_PID 0x1B
#define MOD_TARN_CMD_GET_PMT_PID 0x9B
#define MOD_TARN_CMD_PMT_PID_LEN 2
#define MOD_TARN_CMD_SET_VIDEO_PID 0x1C
#define MOD_TARN_CMD_GET_VIDEO_PID 0x9C
#define MOD_TARN_CMD_VIDEO_PID_LEN 2
#define MOD_TARN_CMD_SET_AUDIO_PID 0x1D
#define MOD_TARN_CMD_GET_AUDIO_PID 0x9D
#define MOD_TARN_CMD_AUDIO_PID_LEN 2

/* Extra services: the set payload starts with the slot byte; a get sends the slot alone. */
#define MOD_TARN_CMD_EXTRA_SERVICE_INFO_GET_LEN 1
#define MOD_TARN_CMD_SET_EXTRA_SERVICE_INFO_ENABLE 0x62
#define MOD_TARN_CMD_GET_EXTRA_SERVICE_INFO_ENABLE 0xE2
#define MOD_TARN_CMD_EXTRA_SERVICE_INFO_ENABLE_LEN 2
#define MOD_TARN_CMD_SET_EXTRA_SERVICE_INFO_SID 0x63
#define MOD_TARN_CMD_GET_EXTRA_SERVICE_INFO_SID 0xE3
#define MOD_TARN_CMD_EXTRA_SERVICE_INFO_SID_LEN 3
#define MOD_TARN_CMD_SET_EXTRA_SERVICE_INFO_LCN 0x64
#define MOD_TARN_CMD_GET_EXTRA_SERVICE_INFO_LCN 0xE4
#define MOD_TARN_CMD_EXTRA_SERVICE_INFO_LCN_LEN 3
#define MOD_TARN_CMD_SET_EXTRA_SERVICE_INFO_SERVICE_NAME 0x65
#define MOD_TARN_CMD_GET_EXTRA_SERVICE_INFO_SERVICE_NAME 0xE5
#define MOD_TARN_CMD_EXTRA_SERVICE_INFO_SERVICE_NAME_LEN 16
#define MOD_TARN_CMD_SET_EXTRA_SERVICE_INFO_PMT_PID 0x66
#define MOD_TARN_CMD_GET_EXTRA_SERVICE_INFO_PMT_PID 0xE6
#define MOD_TARN_CMD_EXTRA_SERVICE_INFO_PMT_PID_LEN 3
#define MOD_TARN_CMD_SET_EXTRA_SERVICE_INFO_VIDEO_PID 0x67
#define MOD_TARN_CMD_GET_EXTRA_SERVICE_INFO_VIDEO_PID 0xE7
#define MOD_TARN_CMD_EXTRA_SERVICE_INFO_VIDEO_PID_LEN 3
#define MOD_TARN_CMD_SET_EXTRA_SERVICE_INFO_AUDIO_PID 0x68
#define MOD_TARN_CMD_GET_EXTRA_SERVICE_INFO_AUDIO_PID 0xE8
#define MOD_TARN_CMD_EXTRA_SERVICE_INFO_AUDIO_PID_LEN 3
#define MOD_TARN_CMD_SET_EXTRA_SERVICE_INFO_AUDIO_TYPE 0x69
#define MOD_TARN_CMD_GET_EXTRA_SERVICE_INFO_AUDIO_TYPE 0xE9
#define MOD_TARN_CMD_EXTRA_SERVICE_INFO_AUDIO_TYPE_LEN 2

/* Hardware switches; a debug code is sent before its enable flag, and alone to read it back. */
#define MOD_TARN_CMD_SET_RF_OUT_ENABLE 0x6A
#define MOD_TARN_CMD_GET_RF_OUT_ENABLE 0xEA
#define MOD_TARN_CMD_RF_OUT_ENABLE_LEN 1
#define MOD_TARN_CMD_SET_HW_DEBUG_CODE 0x6B
#define MOD_TARN_CMD_GET_HW_DEBUG_CODE 0xEB
#define MOD_TARN_CMD_HW_DEBUG_CODE_LEN 2

typedef enum mod_tarn_err_t : int {
  MOD_TARN_OK = 0,
  MOD_TARN_I2C_ERR = 1,
  MOD_TARN_CMD_ERR = 2,
  MOD_TARN_CMD_INVLD = 3,
  MOD_TARN_CMD_UNKNOWN = 4,
  MOD_TARN_CMD_TIMEOUT = 5,
  MOD_TARN_CMD_OOB = 6,
  MOD_TARN_RPL_INVLD = 7,
} mod_tarn_err_t;

/* Each enumeration goes to the module as one byte; a get keeps whatever byte came back, also one
 * that is no enumerator. */
typedef enum mod_tarn_output_type_t : int {
  MOD_TARN_DVB_T = 1,
  MOD_TARN_DVB_C = 2,
  MOD_TARN_ATSC_T = 4,
  MOD_TARN_ATSC_C = 8,
  MOD_TARN_DTMB = 16,
  MOD_TARN_ISDBT = 32,
} mod_tarn_output_type_t;

typedef enum mod_tarn_constellation_t : int {
  MOD_TARN_QPSK = 2,
  MOD_TARN_8VSB = 3,
  MOD_TARN_16QAM = 4,
  MOD_TARN_32QAM = 5,
  MOD_TARN_64QAM = 6,
  MOD_TARN_128QAM = 7,
  MOD_TARN_256QAM = 8,
  MOD_TARN_4QAM = 18,
  MOD_TARN_4NRQAM = 34,
} mod_tarn_constellation_t;

typedef enum mod_tarn_guardinterval_t : int {
  MOD_TARN_1_32 = 0,
  MOD_TARN_1_16 = 1,
  MOD_TARN_1_8 = 2,
  MOD_TARN_1_4 = 3,
} mod_tarn_guardinterval_t;

typedef enum mod_tarn_coderate_t : int {
  MOD_TARN_1_2 = 0,
  MOD_TARN_2_3 = 1,
  MOD_TARN_3_4 = 2,
  MOD_TARN_5_6 = 3,
  MOD_TARN_7_8 = 4,
  MOD_TARN_0_4 = 5,
  MOD_TARN_0_6 = 6,
  MOD_TARN_0_8 = 7,
} mod_tarn_coderate_t;

typedef enum mod_tarn_fftmode_t : int {
  MOD_TARN_2K = 0,
  MOD_TARN_8K = 1,
  MOD_TARN_4K = 2,
} mod_tarn_fftmode_t;

typedef enum mod_tarn_carriertype_t : int {
  MOD_TARN_MULTI_CARRIER = 0,
  MOD_TARN_SINGLE_CARRIER = 1,
} mod_tarn_carriertype_t;

typedef enum mod_tarn_interleave_t : int {
  MOD_TARN_INTLV_NONE = 0,
  MOD_TARN_INTLV_240 = 1,
  MOD_TARN_INTLV_720 = 2,
} mod_tarn_interleave_t;

typedef enum mod_tarn_syncframe_t : int {
  MOD_TARN_SYNC_420 = 0,
  MOD_TARN_SYNC_945 = 1,
  MOD_TARN_SYNC_595 = 2,
} mod_tarn_syncframe_t;

typedef enum mod_tarn_stream_type_t : int {
  MOD_TARN_AAC = 0,
  MOD_TARN_MPEG2 = 2,
  MOD_TARN_H264 = 27,
} mod_tarn_stream_type_t;

typedef struct mod_tarn_info_t {
  uint32_t sw_version; /* a letter in the top byte, then three numbers: "%c%d.%d.%d" */
} mod_tarn_info_t;

typedef struct mod_tarn_status_t {
  uint8_t lock; /* non-zero when the HDMI input is locked */
  uint16_t video_height;
  char video_scan_mode;
  uint8_t video_frame_rate;
  uint16_t max_output_bitrate_kbps; /* of the current modulation */
  uint8_t overflow;
} mod_tarn_status_t;

/* One module. Every operation clears err first, leaves its result there and returns it. */
typedef struct mod_tarn_t {
  i2c_t* i2c; /* shared bus, not owned */
  uint8_t i2c_addr;
  char name[MOD_TARN_NAME_LEN + 1];
  mod_tarn_info_t info;
  mod_tarn_status_t status;
  mod_tarn_err_t err;
  /* dB added to an RF level before it is sent, chosen by the frequency */
  int8_t level_offset_below_500;
  int8_t level_offset_between_500_and_1000;
  int8_t level_offset_std;
} mod_tarn_t;

/* One transaction: cmd_size is the whole frame, rpl_size the number of bytes read (the longest
 * reply for replies of varying length). */
mod_tarn_err_t mod_tarn_send_cmd(mod_tarn_t* mod, const uint8_t* cmd, uint32_t cmd_size, uint8_t* rpl,
                                 uint32_t rpl_size);
/* Always succeeds: an absent module is noticed by the commands that follow. */
mod_tarn_err_t mod_tarn_init(mod_tarn_t* mod, const char* name, uint8_t i2c_addr, i2c_t* i2c);
/* The text of mod->err, in one buffer shared by all modules and valid until the next call. */
const char* mod_tarn_strerror(mod_tarn_t* mod);

mod_tarn_err_t mod_tarn_get_alive(mod_tarn_t* mod, uint8_t* alive);
mod_tarn_err_t mod_tarn_get_info(mod_tarn_t* mod);
mod_tarn_err_t mod_tarn_get_status(mod_tarn_t* mod);
/* The module takes the parameters set before into use. */
mod_tarn_err_t mod_tarn_apply(mod_tarn_t* mod);
mod_tarn_err_t mod_tarn_factory_reset(mod_tarn_t* mod);
mod_tarn_err_t mod_tarn_set_cal(mod_tarn_t* mod, int8_t i, int8_t q, uint8_t enable);
mod_tarn_err_t mod_tarn_get_cal(mod_tarn_t* mod, int8_t* i, int8_t* q);

/* Parameters. A set only stages the value in the module; a get writes its output only on success.
 * Names are cut to 15 characters; a name getter reads at most size - 1 characters and a NUL. */
mod_tarn_err_t mod_tarn_set_output_type(mod_tarn_t* mod, mod_tarn_output_type_t output_type);
mod_tarn_err_t mod_tarn_get_output_type(mod_tarn_t* mod, mod_tarn_output_type_t* output_type);
/* The module's level byte is the dBm figure plus an offset chosen by the frequency in kHz. */
mod_tarn_err_t mod_tarn_set_level(mod_tarn_t* mod, int8_t level_dbm, uint32_t freq);
mod_tarn_err_t mod_tarn_get_level(mod_tarn_t* mod, int8_t* level_dbm, uint32_t freq);
mod_tarn_err_t mod_tarn_set_frequency(mod_tarn_t* mod, uint32_t freq_khz);
mod_tarn_err_t mod_tarn_get_frequency(mod_tarn_t* mod, uint32_t* freq_khz);
mod_tarn_err_t mod_tarn_set_bandwidth(mod_tarn_t* mod, uint8_t bandwidth_mhz);
mod_tarn_err_t mod_tarn_get_bandwidth(mod_tarn_t* mod, uint8_t* bandwidth_mhz);
mod_tarn_err_t mod_tarn_set_symbolrate(mod_tarn_t* mod, uint16_t symbolrate_kbaud);
mod_tarn_err_t mod_tarn_get_symbolrate(mod_tarn_t* mod, uint16_t* symbolrate_kbaud);
mod_tarn_err_t mod_tarn_set_constellation(mod_tarn_t* mod, mod_tarn_constellation_t constellation);
mod_tarn_err_t mod_tarn_get_constellation(mod_tarn_t* mod, mod_tarn_constellation_t* constellation);
mod_tarn_err_t mod_tarn_set_guardinterval(mod_tarn_t* mod, mod_tarn_guardinterval_t guardinterval);
mod_tarn_err_t mod_tarn_get_guardinterval(mod_tarn_t* mod, mod_tarn_guardinterval_t* guardinterval);
mod_tarn_err_t mod_tarn_set_coderate(mod_tarn_t* mod, mod_tarn_coderate_t coderate);
mod_tarn_err_t mod_tarn_get_coderate(mod_tarn_t* mod, mod_tarn_coderate_t* coderate);
mod_tarn_err_t mod_tarn_set_fftmode(mod_tarn_t* mod, mod_tarn_fftmode_t fftmode);
mod_tarn_err_t mod_tarn_get_fftmode(mod_tarn_t* mod, mod_tarn_fftmode_t* fftmode);
mod_tarn_err_t mod_tarn_set_carriertype(mod_tarn_t* mod, mod_tarn_carriertype_t carriertype);
mod_tarn_err_t mod_tarn_get_carriertype(mod_tarn_t* mod, mod_tarn_carriertype_t* carriertype);
mod_tarn_err_t mod_tarn_set_interleave(mod_tarn_t* mod, mod_tarn_interleave_t interleave);
mod_tarn_err_t mod_tarn_get_interleave(mod_tarn_t* mod, mod_tarn_interleave_t* interleave);
mod_tarn_err_t mod_tarn_set_syncframe(mod_tarn_t* mod, mod_tarn_syncframe_t syncframe);
mod_tarn_err_t mod_tarn_get_syncframe(mod_tarn_t* mod, mod_tarn_syncframe_t* syncframe);
mod_tarn_err_t mod_tarn_set_video_bitrate(mod_tarn_t* mod, uint16_t bitrate_kbps);
mod_tarn_err_t mod_tarn_get_video_bitrate(mod_tarn_t* mod, uint16_t* bitrate_kbps);
mod_tarn_err_t mod_tarn_set_video_gopsize(mod_tarn_t* mod, uint8_t gopsize);
mod_tarn_err_t mod_tarn_get_video_gopsize(mod_tarn_t* mod, uint8_t* gopsize);
mod_tarn_err_t mod_tarn_set_audio_stream_type(mod_tarn_t* mod, mod_tarn_stream_type_t stream_type);
mod_tarn_err_t mod_tarn_get_audio_stream_type(mod_tarn_t* mod, mod_tarn_stream_type_t* stream_type);
mod_tarn_err_t mod_tarn_set_audio_bitrate(mod_tarn_t* mod, uint16_t bitrate_kbps);
mod_tarn_err_t mod_tarn_get_audio_bitrate(mod_tarn_t* mod, uint16_t* bitrate_kbps);
mod_tarn_err_t mod_tarn_set_sid(mod_tarn_t* mod, uint16_t sid);
mod_tarn_err_t mod_tarn_get_sid(mod_tarn_t* mod, uint16_t* sid);
mod_tarn_err_t mod_tarn_set_tsid(mod_tarn_t* mod, uint16_t tsid);
mod_tarn_err_t mod_tarn_get_tsid(mod_tarn_t* mod, uint16_t* tsid);
mod_tarn_err_t mod_tarn_set_onid(mod_tarn_t* mod, uint16_t onid);
mod_tarn_err_t mod_tarn_get_onid(mod_tarn_t* mod, uint16_t* onid);
mod_tarn_err_t mod_tarn_set_nid(mod_tarn_t* mod, uint16_t nid);
mod_tarn_err_t mod_tarn_get_nid(mod_tarn_t* mod, uint16_t* nid);
mod_tarn_err_t mod_tarn_set_private_data_specifier(mod_tarn_t* mod, uint32_t private_data_specifier);
mod_tarn_err_t mod_tarn_get_private_data_specifier(mod_tarn_t* mod, uint32_t* private_data_specifier);
mod_tarn_err_t mod_tarn_set_lcn(mod_tarn_t* mod, uint16_t lcn);
mod_tarn_err_t mod_tarn_get_lcn(mod_tarn_t* mod, uint16_t* lcn);
mod_tarn_err_t mod_tarn_set_service_name(mod_tarn_t* mod, const char* service_name);
mod_tarn_err_t mod_tarn_get_service_name(mod_tarn_t* mod, char* service_name, size_t size);
mod_tarn_err_t mod_tarn_set_network_name(mod_tarn_t* mod, const char* network_name);
mod_tarn_err_t mod_tarn_get_network_name(mod_tarn_t* mod, char* network_name, size_t size);
mod_tarn_err_t mod_tarn_set_network_version(mod_tarn_t* mod, uint8_t network_version);
mod_tarn_err_t mod_tarn_get_network_version(mod_tarn_t* mod, uint8_t* network_version);
mod_tarn_err_t mod_tarn_set_pmt_pid(mod_tarn_t* mod, uint16_t pid);
mod_tarn_err_t mod_tarn_get_pmt_pid(mod_tarn_t* mod, uint16_t* pid);
mod_tarn_err_t mod_tarn_set_video_pid(mod_tarn_t* mod, uint16_t pid);
mod_tarn_err_t mod_tarn_get_video_pid(mod_tarn_t* mod, uint16_t* pid);
mod_tarn_err_t mod_tarn_set_audio_pid(mod_tarn_t* mod, uint16_t pid);
mod_tarn_err_t mod_tarn_get_audio_pid(mod_tarn_t* mod, uint16_t* pid);

/* The services the module announces besides its own, in slots 0 to
 * MOD_TARN_EXTRA_SERVICE_INFO_SLOTS - 1; the slot goes to the module as it is. */
mod_tarn_err_t mod_tarn_set_extra_service_info_enable(mod_tarn_t* mod, uint8_t id, uint8_t enable);
mod_tarn_err_t mod_tarn_get_extra_service_info_enable(mod_tarn_t* mod, uint8_t id, uint8_t* enable);
mod_tarn_err_t mod_tarn_set_extra_service_info_sid(mod_tarn_t* mod, uint8_t id, uint16_t sid);
mod_tarn_err_t mod_tarn_get_extra_service_info_sid(mod_tarn_t* mod, uint8_t id, uint16_t* sid);
mod_tarn_err_t mod_tarn_set_extra_service_info_lcn(mod_tarn_t* mod, uint8_t id, uint16_t lcn);
mod_tarn_err_t mod_tarn_get_extra_service_info_lcn(mod_tarn_t* mod, uint8_t id, uint16_t* lcn);
mod_tarn_err_t mod_tarn_set_extra_service_info_service_name(mod_tarn_t* mod, uint8_t id,
                                                            const char* service_name);
mod_tarn_err_t mod_tarn_get_extra_service_info_service_name(mod_tarn_t* mod, uint8_t id, char* service_name,
                                                            size_t size);
mod_tarn_err_t mod_tarn_set_extra_service_info_pmt(mod_tarn_t* mod, uint8_t id, uint16_t pid);
mod_tarn_err_t mod_tarn_get_extra_service_info_pmt(mod_tarn_t* mod, uint8_t id, uint16_t* pid);
mod_tarn_err_t mod_tarn_set_extra_service_info_video_pid(mod_tarn_t* mod, uint8_t id, uint16_t pid);
mod_tarn_err_t mod_tarn_get_extra_service_info_video_pid(mod_tarn_t* mod, uint8_t id, uint16_t* pid);
mod_tarn_err_t mod_tarn_set_extra_service_info_audio_pid(mod_tarn_t* mod, uint8_t id, uint16_t pid);
mod_tarn_err_t mod_tarn_get_extra_service_info_audio_pid(mod_tarn_t* mod, uint8_t id, uint16_t* pid);
mod_tarn_err_t mod_tarn_set_extra_service_info_audio_stream_type(mod_tarn_t* mod, uint8_t id,
                                                                 mod_tarn_stream_type_t stream_type);
mod_tarn_err_t mod_tarn_get_extra_service_info_audio_stream_type(mod_tarn_t* mod, uint8_t id,
                                                                 mod_tarn_stream_type_t* stream_type);

mod_tarn_err_t mod_tarn_set_rf_out_enable(mod_tarn_t* mod, uint8_t enable);
mod_tarn_err_t mod_tarn_get_rf_out_enable(mod_tarn_t* mod, uint8_t* enable);
/* The meaning of a debug code is the module's. */
mod_tarn_err_t mod_tarn_set_hw_debug_code(mod_tarn_t* mod, uint8_t code, uint8_t enable);
mod_tarn_err_t mod_tarn_get_hw_debug_code(mod_tarn_t* mod, uint8_t code, uint8_t* enable);

#endif
