/* One request text of any bytes, handled as the command channel hands it over, on a complete RF box
 * whose four modules answer on a simulated bus; then one poll cycle pushes what the request changed
 * to the modules, as the main loop would. Every reply must be one well-formed JSON object. */
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "cmd_json.h"
#include "fuzz_support.h"
#include "hal.h"

namespace {
/* Set after a request that may have changed the box: the next run starts on a new one. */
bool box_changed = false;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::start_rf_box();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Run run;
  if (box_changed) fuzz::build_rf_box();
  /* The channel terminates what it read; a NUL inside ends the text there. */
  std::string request(reinterpret_cast<const char*>(data), size);
  box_changed = fuzz::changes_box(request.c_str(), strlen(request.c_str()));
  char* reply = cmd_json_handler(request.data());
  if (!fuzz::reply_well_formed(reply))
    fuzz::fail(std::string("the reply is not one JSON object of the protocol: ") +
               (reply ? reply : "(null)"));
  free(reply);
  hal_poll();
  return 0;
}
