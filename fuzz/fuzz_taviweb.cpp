/* What taviweb parses: the body of POST /api, the Authorization header, and tavid's replies to
 * the status round (read into a round, then written out as the status document and as metrics).
 *
 * Input: one byte choosing the part (0 body, 1 Authorization, 2 to 5 the reply to a get of
 * device_status, input_hdmi_status, output_rf_status, output_ip_status), then its text. */
#include <jansson.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "taviweb_api.h"
#include "taviweb_auth.h"
#include "taviweb_metrics.h"
#include "taviweb_status.h"

namespace {

/* The user "operator" with the password "open sesame", few rounds so that a check is quick. */
const char kOperator[] =
    "operator:$6$rounds=1000$fuzzsalt$tqiQcruGIVv5maEpomuCRnUM.NzW3VepSjr7lzjfaZDi2dROgaxXc1EMPO0TJCY98/"
    "1ljYC5y7075Ai4Rtwzp/";
const char* const kObjects[] = {"device_status", "input_hdmi_status", "output_rf_status", "output_ip_status"};

void check(bool condition, const char* what) {
  if (condition) return;
  fprintf(stderr, "check failed: %s\n", what);
  abort();
}

bool json_object_text(const std::string& text) {
  json_error_t error;
  json_t* value = json_loadb(text.data(), text.size(), 0, &error);
  bool object = json_is_object(value);
  json_decref(value);
  return object;
}

/* An accepted body is one JSON object; a refusal is a 400 with a JSON error. */
void fuzz_body(const std::string& body) {
  std::optional<taviweb_response_t> refusal = taviweb_api_check_body(body);
  if (!refusal) {
    check(json_object_text(body), "an accepted body is a JSON object");
    return;
  }
  check(refusal->status == 400, "a refused body is a 400");
  check(json_object_text(refusal->body), "the refusal is JSON");
}

std::string base64(const std::string& text) {
  static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (size_t n = 0; n < text.size(); n += 3) {
    uint32_t bits = static_cast<uint8_t>(text[n]) << 16;
    if (n + 1 < text.size()) bits |= static_cast<uint8_t>(text[n + 1]) << 8;
    if (n + 2 < text.size()) bits |= static_cast<uint8_t>(text[n + 2]);
    out += alphabet[(bits >> 18) & 63];
    out += alphabet[(bits >> 12) & 63];
    out += n + 1 < text.size() ? alphabet[(bits >> 6) & 63] : '=';
    out += n + 2 < text.size() ? alphabet[bits & 63] : '=';
  }
  return out;
}

/* Credentials read back from their own header are the same; only the right password passes. */
void fuzz_authorization(taviweb_auth_t* auth, const std::string& value) {
  std::string user;
  std::string password;
  if (!taviweb_auth_parse_basic(value.c_str(), &user, &password)) {
    check(!auth->allows(value.c_str()), "unreadable credentials are refused");
    return;
  }
  check(user.find(':') == std::string::npos, "the user holds no colon");
  std::string again_user;
  std::string again_password;
  check(taviweb_auth_parse_basic(("Basic " + base64(user + ":" + password)).c_str(), &again_user, &again_password) &&
            again_user == user && again_password == password,
        "credentials read back as written");
  check(auth->allows(value.c_str()) == (user == "operator" && password == "open sesame"),
        "only the right password passes");
}

/* Every sample line is "name[{labels}] value" on one line; the document is one JSON object. */
void fuzz_reply(const char* object, const std::string& reply) {
  taviweb_round_t round;
  round.up = true;
  taviweb_read_t read = taviweb_status_read(object, reply, &round);
  check(read != TAVIWEB_READ_OK || json_object_text(round.objects_json), "the objects stay a JSON object");
  check(json_object_text(taviweb_status_document(round, 5.0, round.started)), "the document is a JSON object");
  taviweb_stats_t stats;
  std::string text = taviweb_metrics_render(round, stats.snapshot());
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    check(end != std::string::npos, "every line ends with a line feed");
    std::string line = text.substr(start, end - start);
    check(line.compare(0, 5, "tavi_") == 0 || line.compare(0, 2, "# ") == 0, "every line is a sample or a comment");
    start = end + 1;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static taviweb_auth_t* auth = [] {
    auto* made = new taviweb_auth_t();  // NOLINT(cppcoreguidelines-owning-memory): lives as long as the process
    std::string error;
    check(made->add(kOperator, &error), "the fuzzing user is taken");
    return made;
  }();
  if (size == 0) return 0;
  std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  uint8_t part = data[0] % 6;
  if (part == 0) {
    fuzz_body(text);
  } else if (part == 1) {
    fuzz_authorization(auth, text);
  } else {
    fuzz_reply(kObjects[part - 2], text);
  }
  return 0;
}
