#include "it9300.h"

#include <stddef.h>

it9300_refusal_t it9300_refusal = {IT9300_CALL_NONE, 0, IT9300_OK};

namespace {

void log_call(Endeavour* endeavour, it9300_call_t call, uint8_t chip, uint32_t a, uint32_t b, uint32_t c) {
  if (endeavour->callCount < IT9300_CALL_LOG_SIZE) {
    endeavour->callLog[endeavour->callCount] = {call, chip, {a, b, c}};
  }
  endeavour->callCount++;
}

/* What every call does first: log itself, then answer a refusal or a chip past the record. */
uint32_t begin(Endeavour* endeavour, it9300_call_t call, uint8_t chip, uint32_t a, uint32_t b = 0,
               uint32_t c = 0) {
  if (endeavour == NULL) return IT9300_ERR_NO_RECORD;
  log_call(endeavour, call, chip, a, b, c);
  if (it9300_refusal.call == call && it9300_refusal.argument == a) return it9300_refusal.error;
  if (chip >= IT9300_CHIP_MAX) return IT9300_ERR_CHIP;
  return IT9300_OK;
}

/* The same for a call on one TS input. */
uint32_t begin_input(Endeavour* endeavour, it9300_call_t call, uint8_t chip, uint8_t input, uint32_t b = 0,
                     uint32_t c = 0) {
  uint32_t err = begin(endeavour, call, chip, input, b, c);
  if (err != IT9300_OK) return err;
  return input < IT9300_TS_INPUTS ? IT9300_OK : IT9300_ERR_TS_INPUT;
}

uint32_t set_port(Endeavour* endeavour, it9300_call_t call, uint8_t chip, uint8_t input, Bool enabled) {
  uint32_t err = begin_input(endeavour, call, chip, input);
  if (err != IT9300_OK) return err;
  endeavour->state[chip].tsPortEnabled[input] = enabled;
  return IT9300_OK;
}

/* The register's slot: the one it already has, or a new one at the end; null when full. */
it9300_register_t* register_slot(it9300_chip_state_t* state, uint32_t address) {
  for (uint8_t i = 0; i < state->registerCount; i++) {
    if (state->registers[i].address == address) return &state->registers[i];
  }
  if (state->registerCount == IT9300_REGISTER_MAX) return NULL;
  it9300_register_t* slot = &state->registers[state->registerCount++];
  slot->address = address;
  return slot;
}

}  // namespace

uint32_t IT9300_initialize(Endeavour* endeavour, uint8_t chip, uint8_t tsClockDivider) {
  uint32_t err = begin(endeavour, IT9300_CALL_INITIALIZE, chip, tsClockDivider);
  if (err != IT9300_OK) return err;
  if (chip >= endeavour->chipCount || !endeavour->gator[chip].existed) return IT9300_ERR_CHIP;
  if (tsClockDivider == 0) return IT9300_ERR_CLOCK_DIVIDER;
  endeavour->state[chip].booted = True;
  endeavour->state[chip].tsClockDivider = tsClockDivider;
  return IT9300_OK;
}

uint32_t IT9300_writeRegister(Endeavour* endeavour, uint8_t chip, uint32_t registerAddress, uint8_t value) {
  uint32_t err = begin(endeavour, IT9300_CALL_WRITE_REGISTER, chip, registerAddress, value);
  if (err != IT9300_OK) return err;
  it9300_register_t* slot = register_slot(&endeavour->state[chip], registerAddress);
  if (slot == NULL) return IT9300_ERR_REGISTER_FULL;
  slot->value = value;
  return IT9300_OK;
}

uint32_t IT9300_enableTsPort(Endeavour* endeavour, uint8_t chip, uint8_t tsInput) {
  return set_port(endeavour, IT9300_CALL_ENABLE_TS_PORT, chip, tsInput, True);
}

uint32_t IT9300_disableTsPort(Endeavour* endeavour, uint8_t chip, uint8_t tsInput) {
  return set_port(endeavour, IT9300_CALL_DISABLE_TS_PORT, chip, tsInput, False);
}

uint32_t IT9300_simplePidFilter_ResetPidTable(Endeavour* endeavour, uint8_t chip, uint8_t tsInput) {
  uint32_t err = begin_input(endeavour, IT9300_CALL_RESET_PID_TABLE, chip, tsInput);
  if (err != IT9300_OK) return err;
  for (it9300_pid_entry_t& entry : endeavour->state[chip].pidTable[tsInput]) entry = {False, 0};
  return IT9300_OK;
}

uint32_t IT9300_simplePidFilter_SetMode(Endeavour* endeavour, uint8_t chip, uint8_t tsInput,
                                        PID_FILTER_MODE mode) {
  uint32_t err = begin_input(endeavour, IT9300_CALL_SET_MODE, chip, tsInput, static_cast<uint32_t>(mode));
  if (err != IT9300_OK) return err;
  if (mode < PID_FILTER_MODE_DISABLE || mode > PID_FILTER_MODE_BLOCK) return IT9300_ERR_FILTER_MODE;
  endeavour->state[chip].pidFilterMode[tsInput] = mode;
  return IT9300_OK;
}

uint32_t IT9300_simplePidFilter_AddPid(Endeavour* endeavour, uint8_t chip, uint8_t tsInput, uint16_t pid,
                                       uint8_t entry) {
  uint32_t err = begin_input(endeavour, IT9300_CALL_ADD_PID, chip, tsInput, pid, entry);
  if (err != IT9300_OK) return err;
  if (pid > IT9300_PID_MAX) return IT9300_ERR_PID;
  if (entry >= IT9300_PID_TABLE_SIZE) return IT9300_ERR_TABLE_ENTRY;
  endeavour->state[chip].pidTable[tsInput][entry] = {True, pid};
  return IT9300_OK;
}
