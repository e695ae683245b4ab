/* What the HAL unit tests share: reading the console output, recording fakes, building transport
 * streams, a stand-in for the HDMI input that produces a TS, and the common fixture. Header only;
 * each test executable includes it once. */
#ifndef HAL_TEST_SUPPORT_H
#define HAL_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>

#include <regex>
#include <string>
#include <type_traits>
#include <vector>

#include "dbg.h"
#include "hal.h"
#include "hal_ts.h"

namespace hal_test {

/* ---- console output ---- */

/* One message line as the daemon prints it. */
inline std::string msg(const std::string& text) { return "\x1B[0mtavid [MSG]: " + text + "\x1B[0m\n\r"; }

/* One warning as the daemon prints it, its source line given as N (see without_lines). */
inline std::string wrn(const std::string& func, const std::string& text) {
  return "\x1B[33mtavid [WRN]: Warning in function '" + func + "' [line N]:\n\r\t" + text + "\x1B[0m\n\r";
}

/* One error line as the daemon prints it, its source line given as N (see without_lines). */
inline std::string err(const std::string& func, const std::string& text) {
  return "\x1B[31mtavid [ERR]: Error in function '" + func + "' [line N]:\n\r\t" + text + "\x1B[0m\n\r";
}

/* Warnings carry the source line; the tests compare everything else. */
inline std::string without_lines(const std::string& text) {
  return std::regex_replace(text, std::regex("\\[line [0-9]+\\]"), "[line N]");
}

/* The texts of the message lines, without their colour and program prefix. */
inline std::vector<std::string> messages_in(const std::string& out) {
  static const std::regex message("\x1B\\[0mtavid \\[MSG\\]: ([^\x1B]*)\x1B\\[0m\n\r");
  std::vector<std::string> found;
  for (std::sregex_iterator it(out.begin(), out.end(), message), end; it != end; ++it)
    found.push_back((*it)[1]);
  return found;
}

/* The warnings as "<function>: <text>", their line numbers cut out. */
inline std::vector<std::string> warnings_in(const std::string& err) {
  static const std::regex warning(
      "\x1B\\[33mtavid \\[WRN\\]: Warning in function '([a-z_0-9]+)' \\[line [0-9]+\\]:"
      "\n\r\t([^\x1B]*)\x1B\\[0m\n\r");
  std::vector<std::string> found;
  for (std::sregex_iterator it(err.begin(), err.end(), warning), end; it != end; ++it) {
    found.push_back((*it)[1].str() + ": " + (*it)[2].str());
  }
  return found;
}

/* The poll cycle's step lines ("<SYNC_REQUIRED> hal_output_rf (0)" and their closing lines), in
 * order. */
inline std::vector<std::string> step_lines(const std::string& out) {
  std::vector<std::string> steps;
  for (const std::string& text : messages_in(out)) {
    if (text.find("_REQUIRED> ") != std::string::npos) steps.push_back(text);
  }
  return steps;
}

struct printed_t {
  std::string out;
  std::string err;
};

/* Runs `f` with both console streams captured. */
template <typename F>
printed_t printed_by(F&& f) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  f();
  printed_t printed;
  printed.err = testing::internal::GetCapturedStderr();
  printed.out = testing::internal::GetCapturedStdout();
  return printed;
}

/* Runs `f` with its warnings kept off the console; returns what `f` returns. */
template <typename F>
auto quietly(F&& f) {
  testing::internal::CaptureStderr();
  if constexpr (std::is_void_v<decltype(f())>) {
    f();
    testing::internal::GetCapturedStderr();
  } else {
    auto result = f();
    testing::internal::GetCapturedStderr();
    return result;
  }
}

/* The change test of a TS, quietly: without taking the change in, or taking it in, as its producer
 * does. */
inline uint8_t ts_changed(hal_ts_t* ts) {
  return quietly([ts] { return hal_ts_changed(ts, 0); });
}
inline uint8_t take_in(hal_ts_t* ts) {
  return quietly([ts] { return hal_ts_changed(ts, 1); });
}

/* ---- recording fakes ---- */

/* What the fakes were handed, in order. */
inline std::vector<std::string> calls;
/* The fake that fails, named by its operation or by its whole call, and what it answers then. */
inline std::string failing;
inline hal_err_t failure = HAL_ERR;

inline hal_err_t record(const std::string& call, const std::string& op) {
  calls.push_back(call);
  return failing == op || failing == call ? failure : HAL_OK;
}
inline hal_err_t record(const std::string& call) { return record(call, call); }

/* The driver context the fakes expect: a call made with any other marks itself. */
inline int driver;

inline hal_err_t record(const void* user, const std::string& call, const std::string& op) {
  return record(user == &driver ? call : call + " (foreign user)", op);
}

template <typename T>
std::string number(T value) {
  return std::to_string(static_cast<long long>(value));
}

/* A driver read, recorded as "get <op>": on success the hardware's value is copied out. */
template <typename T>
hal_err_t fake_read(void* user, const char* op, T* value, T hardware) {
  hal_err_t err = record(user, std::string("get ") + op, op);
  if (err == HAL_OK) *value = hardware;
  return err;
}

// NOLINTBEGIN(bugprone-macro-parentheses): T names a type, which takes no parentheses
/* The fake driver setter fake_set_<op>, recorded as "set <op> <value>", and the fake getter
 * fake_get_<op>, which reads `hardware`. */
#define HAL_TEST_FAKE_ACCESSORS(op, T, hardware)                                  \
  hal_err_t fake_set_##op(void* user, T value) {                                  \
    return hal_test::record(user, "set " #op " " + hal_test::number(value), #op); \
  }                                                                               \
  hal_err_t fake_get_##op(void* user, T* value) { return hal_test::fake_read(user, #op, value, hardware); }
// NOLINTEND(bugprone-macro-parentheses)

/* A producer's network setters, recorded as "<field> <value>". */
inline hal_err_t fake_ts_tsid(void*, uint16_t value) { return record("tsid " + number(value), "tsid"); }
inline hal_err_t fake_ts_onid(void*, uint16_t value) { return record("onid " + number(value), "onid"); }
inline hal_err_t fake_ts_nid(void*, uint16_t value) { return record("nid " + number(value), "nid"); }
inline hal_err_t fake_ts_private_data_specifier(void*, uint32_t value) {
  return record("private_data_specifier " + number(value), "private_data_specifier");
}
inline hal_err_t fake_ts_network_name(void*, const char* value) {
  return record(std::string("network_name ") + value, "network_name");
}
inline hal_err_t fake_ts_network_version(void*, uint8_t value) {
  return record("network_version " + number(value), "network_version");
}

inline void fake_ts_identity(hal_ts_t* ts) {
  ts->set = {fake_ts_tsid,         fake_ts_onid,           fake_ts_nid, fake_ts_private_data_specifier,
             fake_ts_network_name, fake_ts_network_version};
}

/* A producer's PSI rebuild, recorded as "psi <tag of ts_to> from <tag of ts_from>". */
inline hal_err_t fake_psi(hal_ts_t* ts_to, hal_ts_t* ts_from) {
  return record("psi " + std::to_string(ts_to->tag) + " from " + std::to_string(ts_from->tag), "psi");
}

/* ---- transport streams ---- */

/* A new service of `ts` with the given SID and name and one stream per entry of `streams`, in
 * that order, everything set through the setters. */
inline hal_service_t* add_service(hal_ts_t* ts, uint16_t sid, const std::string& name,
                                  const std::vector<hal_stream_settings_t>& streams = {}) {
  hal_service_t* service = hal_ts_new_service(ts);
  hal_service_set_sid(service, sid);
  hal_service_set_name(service, name.c_str());
  for (const hal_stream_settings_t& settings : streams) {
    hal_stream_t* stream = hal_service_new_stream(service);
    hal_stream_set_pid(stream, settings.pid);
    hal_stream_set_type(stream, settings.type);
    hal_stream_set_bitrate(stream, settings.bitrate_kbps);
  }
  return service;
}

/* Streams on the given PIDs, all of one type and bitrate. */
inline std::vector<hal_stream_settings_t> streams_of(const std::vector<uint16_t>& pids,
                                                     hal_stream_type_t type = HAL_STREAM_TYPE_UNKNOWN,
                                                     uint16_t bitrate_kbps = 0) {
  std::vector<hal_stream_settings_t> streams;
  streams.reserve(pids.size());
  for (uint16_t pid : pids) streams.push_back({pid, type, bitrate_kbps});
  return streams;
}

/* Sets the network identity of a TS through its setters. */
inline void set_identity(hal_ts_t* ts, const hal_ts_settings_t& identity) {
  hal_ts_set_tsid(ts, identity.tsid);
  hal_ts_set_onid(ts, identity.onid);
  hal_ts_set_nid(ts, identity.nid);
  hal_ts_set_private_data_specifier(ts, identity.private_data_specifier);
  hal_ts_set_network_name(ts, identity.network_name);
  hal_ts_set_network_version(ts, identity.network_version);
}

/* The service or stream at `index` of its list, newest first; null past the end. */
inline hal_service_t* service_at(hal_ts_t* ts, int index) {
  lnklist_node_t* node = ts->service_list.head;
  while (node != nullptr && index-- > 0) node = node->next;
  return reinterpret_cast<hal_service_t*>(node);
}
inline hal_stream_t* stream_at(hal_service_t* service, int index) {
  lnklist_node_t* node = service->stream_list.head;
  while (node != nullptr && index-- > 0) node = node->next;
  return reinterpret_cast<hal_stream_t*>(node);
}

/* Deletes any HAL object through its delete operation. */
inline void delete_object(void* object) {
  hal_object_t* header = static_cast<hal_object_t*>(object);
  header->delete_(header);
}

/* ---- a producer in the poll cycle ---- */

/* Stands in for the HDMI input that produces a TS: it takes in the changes of its TS and owes an
 * apply for them. With `logged` set it records its change tests and applies in `calls`. */
struct fake_input_t {
  hal_object_t hal_object;
  hal_ts_t* tsout;
  uint8_t sync_required;
  uint8_t apply_required;
  uint8_t logged;
};

inline uint8_t fake_input_changed(fake_input_t* input) {
  if (input->logged) calls.emplace_back("input test");
  if (hal_ts_changed(input->tsout, 1)) input->apply_required = 1;
  return input->apply_required;
}

inline hal_err_t fake_input_apply(fake_input_t* input) {
  if (input->logged) calls.emplace_back("input apply");
  input->apply_required = 0;
  return HAL_OK;
}

inline void delete_fake_input(hal_object_t* object) {
  delete_object(reinterpret_cast<fake_input_t*>(object)->tsout);
  delete_hal_object(object);
}

inline const hal_poll_ops_t fake_input_ops = {"hal_input_hdmi",
                                              hal_poll_changed<fake_input_t, fake_input_changed>,
                                              NULL,
                                              hal_poll_step<fake_input_t, fake_input_apply>,
                                              offsetof(fake_input_t, sync_required),
                                              offsetof(fake_input_t, apply_required)};

/* A new fake input with an empty TS, in the registry, driven by the poll cycle in place of the
 * real inputs. */
inline fake_input_t* add_fake_input(uint8_t logged) {
  hal_poll_register(HAL_INPUT_HDMI, &fake_input_ops);
  fake_input_t* input = reinterpret_cast<fake_input_t*>(hal_object_alloc(sizeof(fake_input_t)));
  input->hal_object.type = HAL_INPUT_HDMI;
  input->hal_object.delete_ = delete_fake_input;
  input->tsout = new_hal_ts();
  input->logged = logged;
  lnklist_push_node(&hal, &input->hal_object.node);
  return input;
}

/* ---- the fixture ---- */

/* Tags counted from zero, an empty call log and a quiet console for every test; the registry
 * emptied after it. */
class HalTest : public ::testing::Test {
 protected:
  void SetUp() override {
    hal_ts_tag = hal_service_tag = hal_stream_tag = 0;
    calls.clear();
    failing.clear();
    failure = HAL_ERR;
    verbose = 0;
  }
  void TearDown() override {
    hal_cleanup();
    verbose = 0;
  }
  /* One poll cycle, which must succeed: returns what it printed, its warnings kept in `errors`. */
  std::string poll() {
    printed_t printed = printed_by([] { EXPECT_EQ(hal_poll(), HAL_OK); });
    errors = printed.err;
    return printed.out;
  }
  std::string errors;
};

}  // namespace hal_test

#endif
