/* One request text of any bytes, handled as the command channel hands it over, on the complete box
 * of one output mode whose modules answer on a simulated bus; then one poll cycle pushes what the
 * request changed to the modules and the streaming program, as the main loop would. Every reply
 * must be one well-formed JSON object.
 *
 * Input: one byte that picks the output mode (modulo 3: RF, IP SPTS, IP MPTS; the seeds use the
 * digits '0', '1' and '2'), then the request text. */
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

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
  /* The channel terminates what it read; a NUL inside ends the text there. */
  std::string request(reinterpret_cast<const char*>(data + 1), size - 1);
  fuzz::boxes().changed = fuzz::changes_box(request.c_str(), strlen(request.c_str()));
  char* reply = cmd_json_handler(request.data());
  if (!fuzz::reply_well_formed(reply))
    fuzz::fail(std::string("the reply is not one JSON object of the protocol: ") +
               (reply ? reply : "(null)"));
  free(reply);
  hal_poll();
  return 0;
}
