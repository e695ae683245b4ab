/* Owners of what Jansson hands out, for the clients of tavid (tavictl, taviweb). */

#ifndef TAVID_JSON_H
#define TAVID_JSON_H

#include <jansson.h>
#include <stdlib.h>

#include <memory>

struct tavid_json_deleter {
  void operator()(json_t* json) const { json_decref(json); }
};
using json_ptr = std::unique_ptr<json_t, tavid_json_deleter>;

struct tavid_text_deleter {
  void operator()(char* text) const { free(text); }
};
using text_ptr = std::unique_ptr<char, tavid_text_deleter>;

#endif
