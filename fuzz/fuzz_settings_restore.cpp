/* A settings file of any bytes, restored at start-up on the complete box of one output mode whose
 * modules answer on a simulated bus; then one poll cycle pushes what the records changed to the
 * modules and the streaming program, as the main loop would. A record that does not parse ends the
 * restore quietly, one that is refused is reported and skipped: either way the restore itself
 * succeeds and is over.
 *
 * Input: one byte that picks the output mode (modulo 3: RF, IP SPTS, IP MPTS; the seeds use the
 * digits '0', '1' and '2'), then the file. */
#include <stddef.h>
#include <stdint.h>

#include <string>

#include "cmd_json.h"
#include "fuzz_support.h"
#include "hal.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::start_boxes();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Run run;
  if (size < 1) return 0;
  fuzz::box_for_run(fuzz::box_mode_of(data[0]));
  const char* text = reinterpret_cast<const char*>(data + 1);
  fuzz::boxes().changed = fuzz::starts_with_record(text, size - 1);
  fuzz::write_file(TAVID_CMD_SETTINGS_FILE, std::string(text, size - 1));
  const cmd_json_err_t err = cmd_restore_settings(NULL, NULL);
  if (err != CMD_JSON_OK) fuzz::fail("the restore of a readable file ended in result " + std::to_string(err));
  if (flag_restoring != 0) fuzz::fail("the restore is still marked as running");
  hal_poll();
  return 0;
}
