/* A settings file of any bytes, restored at start-up on a complete RF box whose four modules answer
 * on a simulated bus; then one poll cycle pushes what the records changed to the modules, as the
 * main loop would. A record that does not parse ends the restore quietly, one that is refused is
 * reported and skipped: either way the restore itself succeeds and is over. */
#include <stddef.h>
#include <stdint.h>

#include <string>

#include "cmd_json.h"
#include "fuzz_support.h"
#include "hal.h"

namespace {
/* Set after a file whose first record parsed: the next run starts on a new box. */
bool box_changed = false;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::start_rf_box();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Run run;
  if (box_changed) fuzz::build_rf_box();
  const char* text = reinterpret_cast<const char*>(data);
  box_changed = fuzz::starts_with_record(text, size);
  fuzz::write_file(TAVID_CMD_SETTINGS_FILE, std::string(text, size));
  const cmd_json_err_t err = cmd_restore_settings(NULL, NULL);
  if (err != CMD_JSON_OK) fuzz::fail("the restore of a readable file ended in result " + std::to_string(err));
  if (flag_restoring != 0) fuzz::fail("the restore is still marked as running");
  hal_poll();
  return 0;
}
