#ifndef IT9300_H
#define IT9300_H

#include <stdint.h>

/* Our own layer in place of the chip maker's IT9300 library: the calls the TS-mux driver makes,
 * nothing more. It sends nothing over the bus. Each call checks its arguments, refuses a bad one
 * with one of the codes below, and otherwise keeps what it programmed (boot, PID tables, filter
 * modes, enabled ports, written registers) in the record, where it can be read back. Every call
 * made on a record is also logged there, in order, refused ones included. */

#define IT9300_CHIP_MAX 4        /* chips one record can describe */
#define IT9300_TS_INPUTS 5       /* TS inputs of one chip */
#define IT9300_PID_TABLE_SIZE 32 /* entries of one input's PID table */
#define IT9300_PID_MAX 0x1FFF
#define IT9300_REGISTER_MAX 32 /* distinct registers kept per chip */
#define IT9300_CALL_LOG_SIZE 64

/* Results of the calls: 0 for success, otherwise what was wrong with the arguments. */
enum : uint32_t {
  IT9300_OK = 0,
  IT9300_ERR_NO_RECORD = 0x101,
  IT9300_ERR_CHIP = 0x102, /* past the record's chips, or (to boot) not described by it */
  IT9300_ERR_TS_INPUT = 0x103,
  IT9300_ERR_PID = 0x104,
  IT9300_ERR_TABLE_ENTRY = 0x105,
  IT9300_ERR_FILTER_MODE = 0x106,
  IT9300_ERR_CLOCK_DIVIDER = 0x107,
  IT9300_ERR_REGISTER_FULL = 0x108,
};

typedef enum Bool : uint8_t { False = 0, True = 1 } Bool;

/* Values of the record's description fields; 0 leaves a field unset. */
enum : uint8_t { BUS_I2C = 1 };
enum : uint8_t { OUT_DATA_TS_SERIAL = 1 };
enum : uint8_t { PKT_LEN_188 = 1 };
enum : uint8_t { TS_SERIAL = 1 };
enum : uint8_t { TS_PORT_0 = 0, TS_PORT_1 = 1, TS_PORT_2 = 2, TS_PORT_3 = 3, TS_PORT_4 = 4 };

/* A disabled filter passes everything; a pass filter only the PIDs of its table, a block filter
 * all others. */
typedef enum PID_FILTER_MODE : int {
  PID_FILTER_MODE_DISABLE = 0,
  PID_FILTER_MODE_PASS = 1,
  PID_FILTER_MODE_BLOCK = 2,
} PID_FILTER_MODE;

/* One chip of the chain the record describes. */
typedef struct it9300_gator_t {
  Bool existed;
  uint8_t i2cAddr;
  uint8_t outDataType;
  uint8_t outTsPktLen;
} it9300_gator_t;

/* One TS input of a chip and the port that carries it. */
typedef struct it9300_ts_source_t {
  Bool existed;
  uint8_t tsType;
  uint8_t tsPort;
} it9300_ts_source_t;

typedef struct it9300_pid_entry_t {
  Bool used;
  uint16_t pid;
} it9300_pid_entry_t;

typedef struct it9300_register_t {
  uint32_t address;
  uint8_t value;
} it9300_register_t;

/* What has been programmed into one chip. Registers are kept in the order of their first
 * write, each with its last value. */
typedef struct it9300_chip_state_t {
  Bool booted;
  uint8_t tsClockDivider;
  Bool tsPortEnabled[IT9300_TS_INPUTS];
  PID_FILTER_MODE pidFilterMode[IT9300_TS_INPUTS];
  it9300_pid_entry_t pidTable[IT9300_TS_INPUTS][IT9300_PID_TABLE_SIZE];
  uint8_t registerCount;
  it9300_register_t registers[IT9300_REGISTER_MAX];
} it9300_chip_state_t;

typedef enum it9300_call_t : int {
  IT9300_CALL_NONE = 0,
  IT9300_CALL_INITIALIZE,
  IT9300_CALL_WRITE_REGISTER,
  IT9300_CALL_ENABLE_TS_PORT,
  IT9300_CALL_DISABLE_TS_PORT,
  IT9300_CALL_RESET_PID_TABLE,
  IT9300_CALL_SET_MODE,
  IT9300_CALL_ADD_PID,
} it9300_call_t;

/* One logged call: its arguments after the chip, in the order of the call (clock divider;
 * register and value; input; input and mode; input, PID and table entry), unused ones 0. */
typedef struct it9300_call_entry_t {
  it9300_call_t call;
  uint8_t chip;
  uint32_t args[3];
} it9300_call_entry_t;

typedef struct Endeavour {
  Bool bypassBoot;
  Bool bypassScript;
  uint8_t ctrlBus;
  uint16_t maxBusTxSize;
  uint8_t chipCount;
  void* userData;
  it9300_gator_t gator[IT9300_CHIP_MAX];
  it9300_ts_source_t tsSource[IT9300_CHIP_MAX][IT9300_TS_INPUTS];
  it9300_chip_state_t state[IT9300_CHIP_MAX];
  uint32_t callCount; /* all calls made; the log keeps the first IT9300_CALL_LOG_SIZE */
  it9300_call_entry_t callLog[IT9300_CALL_LOG_SIZE];
} Endeavour;

/* For tests: calls of kind `call` whose first argument after the chip is `argument` answer
 * `error` and take no effect. IT9300_CALL_NONE refuses nothing. */
typedef struct it9300_refusal_t {
  it9300_call_t call;
  uint32_t argument;
  uint32_t error;
} it9300_refusal_t;
extern it9300_refusal_t it9300_refusal;

/* Boots a chip the record describes (chipCount, an existing gator entry). */
uint32_t IT9300_initialize(Endeavour* endeavour, uint8_t chip, uint8_t tsClockDivider);
uint32_t IT9300_writeRegister(Endeavour* endeavour, uint8_t chip, uint32_t registerAddress, uint8_t value);
/* The filter and port calls work on any chip the record has room for, booted or not. */
uint32_t IT9300_enableTsPort(Endeavour* endeavour, uint8_t chip, uint8_t tsInput);
uint32_t IT9300_disableTsPort(Endeavour* endeavour, uint8_t chip, uint8_t tsInput);
/* Empties the input's table; its mode stays. */
uint32_t IT9300_simplePidFilter_ResetPidTable(Endeavour* endeavour, uint8_t chip, uint8_t tsInput);
uint32_t IT9300_simplePidFilter_SetMode(Endeavour* endeavour, uint8_t chip, uint8_t tsInput,
                                        PID_FILTER_MODE mode);
/* Puts the PID in the given entry of the input's table, replacing what was there. */
uint32_t IT9300_simplePidFilter_AddPid(Endeavour* endeavour, uint8_t chip, uint8_t tsInput, uint16_t pid,
                                       uint8_t entry);

#endif
