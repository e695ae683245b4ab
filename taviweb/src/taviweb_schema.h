/* The description of the box's protocol that taviweb serves as GET /api/schema (with an ETag,
 * like the console's files): exported at build time from the daemon's own tables by schema/'s
 * tavid_schema, built in as taviweb_schema's only file, schema.json. The console builds its
 * forms from it and docs/reference.md is generated from it.
 *
 * {"objects":[OBJECT, ...]}, the daemon's objects in the order of its table. An OBJECT:
 *   "name"      the object of a request;
 *   "id"        the argument that names the instance ("output_id"); absent for an object with
 *               one instance;
 *   "actions"   of "get", "set", "execute", those the daemon takes for it;
 *   "list"      true when a get answers an array, one element per member (services, streams),
 *               as "arrayedResult";
 *   "select"    the tag arguments by which a set addresses one member of such a list
 *               (["service_tag"], or ["service_tag","stream_tag"]): every one is needed;
 *   "args"      [ARG, ...] in the order they are applied on set and given on get; [] for an
 *               object without arguments, or whose arguments are handed on as they come
 *               (output_ip_ifconfig, to the network-settings service).
 * An ARG:
 *   "name"      its key; its value is decimal text unless told otherwise;
 *   "words"     the only words taken (and given), exactly as written;
 *   "args"      an object of these ARGs ("ts");
 *   "items"     {"args":[ARG, ...]}: an array of such objects ("services", "streams");
 *   "mandatory" true when a set or execute needs it;
 *   "get":false the argument is taken but never given (a get does not report it);
 *   "set":false the argument is given but never taken (a tag, a measured value).
 * A key is present only when it says something: no "words" means any decimal or text, no
 * "get"/"set" means both. This refines the format agreed for the console with "list" and
 * "select". */

#ifndef TAVIWEB_SCHEMA_H
#define TAVIWEB_SCHEMA_H

#include "taviweb_files.h"

/* schema.json, the only row. */
extern const taviweb_files_t taviweb_schema;

#endif
