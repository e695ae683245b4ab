/* The description of the box's protocol, read from the very tables the daemon dispatches with:
 * every row of cmd_json_objects in order, its actions, its id key and its arguments, with the
 * words an argument takes and the arguments nested in it. The build runs the exporter and builds
 * its output into taviweb (GET /api/schema) and docs/reference.md; the format is told in
 * taviweb/src/taviweb_schema.h. */

#ifndef TAVID_SCHEMA_H
#define TAVID_SCHEMA_H

#include <jansson.h>

/* A new {"objects":[...]}; NULL with a line on stderr when an object of the daemon has no
 * description here (a new object must be given one). */
json_t* tavid_schema_describe(void);

#endif
