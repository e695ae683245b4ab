/* tavid_schema FILE: writes the description of the protocol to FILE as compact JSON. */

#include <stdio.h>

#include "cmd_json.h"
#include "tavid_schema.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: tavid_schema FILE\n");
    return 2;
  }
  json_ptr schema(tavid_schema_describe());
  if (!schema) return 1;
  if (json_dump_file(schema.get(), argv[1], JSON_COMPACT | JSON_PRESERVE_ORDER) != 0) {
    fprintf(stderr, "tavid_schema: cannot write %s\n", argv[1]);
    return 1;
  }
  return 0;
}
