#include "taviweb_status.h"

#include <math.h>
#include <stdlib.h>
#include <string.h>

#include "tavid_json.h"

namespace {

/* The two output status objects: a box has the one of its mode, the other answers an error. */
const char* const taviweb_status_outputs[2] = {"output_rf_status", "output_ip_status"};

/* A protocol number: every value comes as a JSON string. */
std::optional<double> taviweb_status_number(json_t* element, const char* key) {
  const char* text = json_string_value(json_object_get(element, key));
  if (text == NULL || *text == '\0') return std::nullopt;
  char* end = NULL;
  double value = strtod(text, &end);
  if (*end != '\0' || !isfinite(value)) return std::nullopt;
  return value;
}

std::optional<double> taviweb_status_yes_no(json_t* element, const char* key) {
  const char* text = json_string_value(json_object_get(element, key));
  if (text == NULL) return std::nullopt;
  if (strcmp(text, "yes") == 0) return 1.0;
  if (strcmp(text, "no") == 0) return 0.0;
  return std::nullopt;
}

std::string taviweb_status_text(json_t* element, const char* key) {
  const char* text = json_string_value(json_object_get(element, key));
  return text != NULL ? text : "";
}

void taviweb_status_read_device(json_t* element, taviweb_round_t* round) {
  std::optional<double> temperature = taviweb_status_number(element, "temperature");
  if (temperature && !round->temperature_c) round->temperature_c = temperature;
}

void taviweb_status_read_input(json_t* element, taviweb_round_t* round) {
  round->inputs.push_back({taviweb_status_text(element, "input_id"), taviweb_status_number(element, "lock"),
                           taviweb_status_text(element, "video_format")});
}

void taviweb_status_read_rf(json_t* element, taviweb_round_t* round) {
  round->rf_outputs.push_back({taviweb_status_text(element, "output_id"), taviweb_status_number(element, "bitrate"),
                               taviweb_status_number(element, "max_bitrate"),
                               taviweb_status_yes_no(element, "overflow")});
}

void taviweb_status_read_ip(json_t* element, taviweb_round_t* round) {
  round->ip_outputs.push_back({taviweb_status_text(element, "output_id"), taviweb_status_number(element, "bitrate")});
}

typedef struct taviweb_status_reader_t {
  const char* object;
  void (*read)(json_t* element, taviweb_round_t* round);
} taviweb_status_reader_t;

const taviweb_status_reader_t taviweb_status_readers[] = {
    {"device_status", taviweb_status_read_device},
    {"input_hdmi_status", taviweb_status_read_input},
    {"output_rf_status", taviweb_status_read_rf},
    {"output_ip_status", taviweb_status_read_ip},
};

const taviweb_status_reader_t* taviweb_status_reader(const char* object) {
  for (const taviweb_status_reader_t& reader : taviweb_status_readers) {
    if (strcmp(reader.object, object) == 0) return &reader;
  }
  return NULL;
}

/* Every instance's object of a reply: the elements of "arrayedResult", or the one "result". */
void taviweb_status_read_instances(const taviweb_status_reader_t* reader, json_t* reply, taviweb_round_t* round) {
  json_t* single = json_object_get(reply, "result");
  if (json_is_object(single)) reader->read(single, round);
  size_t index;
  json_t* element;
  json_array_foreach(json_object_get(reply, "arrayedResult"), index, element) {
    if (json_is_object(element)) reader->read(element, round);
  }
}

void taviweb_status_keep(const char* object, json_t* reply, taviweb_round_t* round) {
  json_error_t error;
  json_ptr objects(json_loads(round->objects_json.c_str(), 0, &error));
  if (!objects || json_object_set(objects.get(), object, reply) != 0) return;
  text_ptr text(json_dumps(objects.get(), JSON_COMPACT | JSON_PRESERVE_ORDER));
  if (text) round->objects_json = text.get();
}

std::string taviweb_status_request(const char* object) {
  return std::string("{\"action\":\"get\",\"object\":\"") + object + "\",\"args\":{}}";
}

}  // namespace

taviweb_read_t taviweb_status_read(const char* object, const std::string& reply, taviweb_round_t* round) {
  json_error_t error;
  json_ptr parsed(json_loadb(reply.data(), reply.size(), 0, &error));
  if (!parsed || !json_is_object(parsed.get())) return TAVIWEB_READ_BAD;
  if (json_object_get(parsed.get(), "errorCode") != NULL) return TAVIWEB_READ_ERROR_REPLY;
  const taviweb_status_reader_t* reader = taviweb_status_reader(object);
  if (reader != NULL) taviweb_status_read_instances(reader, parsed.get(), round);
  taviweb_status_keep(object, parsed.get(), round);
  return TAVIWEB_READ_OK;
}

std::string taviweb_status_document(const taviweb_round_t& round, double interval_s,
                                    std::chrono::steady_clock::time_point now) {
  std::chrono::duration<double> age = now - round.started;
  json_error_t error;
  json_ptr objects(json_loads(round.objects_json.c_str(), 0, &error));
  json_ptr document(json_object());
  json_object_set_new(document.get(), "up", json_boolean(round.up));
  json_object_set_new(document.get(), "age", json_real(age.count() > 0 ? age.count() : 0.0));
  json_object_set_new(document.get(), "interval", json_real(interval_s));
  if (!round.up) json_object_set_new(document.get(), "error", json_string(round.error.c_str()));
  json_object_set(document.get(), "objects", objects ? objects.get() : json_object());
  text_ptr text(json_dumps(document.get(), JSON_COMPACT | JSON_PRESERVE_ORDER | JSON_REAL_PRECISION(6)));
  return text ? text.get() : "{}";
}

taviweb_status_t::taviweb_status_t(taviweb_tavid_t* tavid, double interval_s, now_fn now)
    : tavid_(tavid), interval_s_(interval_s), now_(now) {}

void taviweb_status_t::get(const ready_fn& ready) {
  std::shared_ptr<const taviweb_round_t> fresh;
  bool start = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    std::chrono::duration<double> age = now_() - (latest_ ? latest_->started : clock::time_point());
    if (latest_ && age.count() < interval_s_) {
      fresh = latest_;
    } else {
      waiters_.push_back(ready);
      start = !in_flight_;
      in_flight_ = true;
    }
  }
  if (fresh) ready(fresh);
  if (start) tavid_->push([this](const taviweb_link_t& link) { run_round(link); });
}

namespace {

/* One get of every instance of the object, read into the round; false (the round is over, tavid
 * not up) when tavid did not answer or its reply is no JSON object. */
bool taviweb_status_read_object(const taviweb_link_t& link, const char* object, taviweb_round_t* round,
                                taviweb_read_t* read) {
  std::string reply;
  tavid_client_failure_t failure = link.exchange(taviweb_status_request(object), &reply);
  if (failure.err != TAVID_CLIENT_OK) {
    round->error = link.describe(failure);
    return false;
  }
  *read = taviweb_status_read(object, reply, round);
  if (*read != TAVIWEB_READ_BAD) return true;
  round->error = std::string("the reply to a get of ") + object + " is not a JSON object";
  return false;
}

}  // namespace

/* The output status object that answered last comes first; when it answers an error (the mode
 * changed), the other one. */
bool taviweb_status_t::read_outputs(const taviweb_link_t& link, taviweb_round_t* round) {
  taviweb_read_t read = TAVIWEB_READ_OK;
  if (!taviweb_status_read_object(link, taviweb_status_outputs[output_first_], round, &read)) return false;
  if (read != TAVIWEB_READ_ERROR_REPLY) return true;
  size_t other = 1 - output_first_;
  if (!taviweb_status_read_object(link, taviweb_status_outputs[other], round, &read)) return false;
  if (read == TAVIWEB_READ_OK) output_first_ = other;
  return true;
}

void taviweb_status_t::run_round(const taviweb_link_t& link) {
  auto round = std::make_shared<taviweb_round_t>();
  round->started = now_();
  taviweb_read_t read = TAVIWEB_READ_OK;
  round->up = taviweb_status_read_object(link, "device_status", round.get(), &read) &&
              taviweb_status_read_object(link, "input_hdmi_status", round.get(), &read) &&
              read_outputs(link, round.get());
  std::vector<ready_fn> waiters;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    latest_ = round;
    waiters.swap(waiters_);
    in_flight_ = false;
  }
  for (const ready_fn& ready : waiters) ready(round);
}
