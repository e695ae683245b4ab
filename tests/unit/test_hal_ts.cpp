#include <gtest/gtest.h>
#include <string.h>
#include <zlib.h>

#include <initializer_list>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "dbg.h"
#include "hal_test_support.h"
#include "hal_ts.h"

namespace {

using namespace hal_test;

hal_err_t set_tsid(void*, uint16_t v) { return record("tsid=" + std::to_string(v), "tsid"); }
hal_err_t set_onid(void*, uint16_t v) { return record("onid=" + std::to_string(v), "onid"); }
hal_err_t set_nid(void*, uint16_t v) { return record("nid=" + std::to_string(v), "nid"); }
hal_err_t set_pds(void*, uint32_t v) { return record("pds=" + std::to_string(v), "pds"); }
hal_err_t set_name(void*, const char* v) { return record(std::string("name=") + v, "name"); }
hal_err_t set_version(void*, uint8_t v) { return record("version=" + std::to_string(v), "version"); }
hal_err_t get_tsid(void*, uint16_t* v) {
  *v = 0x4242;
  return record("get tsid", "get tsid");
}
hal_err_t get_name(void*, char* v, size_t size) {
  snprintf(v, size, "from driver");
  return record("get name " + std::to_string(size), "get name");
}
// cppcheck-suppress constParameter ; the operation table fixes the signature
hal_err_t set_enabled(void* user, uint32_t tag, uint8_t v) {
  return record(
      "enabled tag " + std::to_string(tag) + " = " + std::to_string(v) + (user != nullptr ? " user" : ""),
      "enabled");
}

class HalTs : public HalTest {
 protected:
  void TearDown() override {
    for (hal_ts_t* created : owned) created->hal_object.delete_(&created->hal_object);
    HalTest::TearDown();
  }
  hal_ts_t* ts() {
    hal_ts_t* created = new_hal_ts();
    owned.push_back(created);
    return created;
  }
  /* A service with the given SID and name and one stream per PID. */
  static hal_service_t* service(hal_ts_t* parent, uint16_t sid, const char* name,
                                const std::vector<uint16_t>& pids) {
    return add_service(parent, sid, name, streams_of(pids));
  }
  std::vector<hal_ts_t*> owned;
};

TEST_F(HalTs, TagsCountPerKindFromZero) {
  hal_ts_t* first = ts();
  hal_ts_t* second = ts();
  hal_service_t* service = hal_ts_new_service(first);
  hal_stream_t* stream = hal_service_new_stream(service);
  EXPECT_EQ(0u, first->tag);
  EXPECT_EQ(1u, second->tag);
  EXPECT_EQ(0u, service->tag);
  EXPECT_EQ(0u, stream->tag);
  EXPECT_EQ(HAL_TS, first->hal_object.type);
  EXPECT_EQ(HAL_SERVICE, service->hal_object.type);
  EXPECT_EQ(HAL_STREAM, stream->hal_object.type);
  EXPECT_EQ(nullptr, first->hal_object.node.owner); /* a TS belongs to its creator, in no list */
  EXPECT_EQ(&first->service_list, service->hal_object.node.owner);
}

TEST_F(HalTs, DeletedTagIsNeverHandedOutAgain) {
  hal_ts_t* parent = ts();
  hal_service_t* service = hal_ts_new_service(parent);
  service->hal_object.delete_(&service->hal_object);
  EXPECT_EQ(0u, parent->service_list.node_count);
  EXPECT_EQ(1u, hal_ts_new_service(parent)->tag);
}

TEST_F(HalTs, NewestServiceFirst) {
  hal_ts_t* parent = ts();
  hal_service_t* older = hal_ts_new_service(parent);
  hal_service_t* newer = hal_ts_new_service(parent);
  EXPECT_EQ(&newer->hal_object.node, parent->service_list.head);
  EXPECT_EQ(&older->hal_object.node, newer->hal_object.node.next);
}

TEST_F(HalTs, LongNetworkNameIsCutTo63Characters) {
  hal_ts_t* t = ts();
  std::string name(100, 'n');
  EXPECT_EQ(HAL_OK, hal_ts_set_network_name(t, name.c_str()));
  EXPECT_EQ(std::string(63, 'n'), t->settings.network_name);
}

/* 62 letters and a two-byte character: the 63-byte cut would split it, so it is left out whole,
 * and the stored bytes after the name stay zero for the checksum. */
TEST_F(HalTs, LongNamesAreCutBetweenCharacters) {
  hal_ts_t* t = ts();
  const std::string name = std::string(62, 'n') + "\xc3\xa9";
  EXPECT_EQ(HAL_OK, hal_ts_set_network_name(t, name.c_str()));
  EXPECT_EQ(std::string(62, 'n'), t->settings.network_name);
  EXPECT_EQ(t->settings.network_name[63], '\0');
  hal_service_t* service = hal_ts_new_service(t);
  EXPECT_EQ(HAL_OK, hal_service_set_name(service, name.c_str()));
  EXPECT_EQ(std::string(62, 'n'), service->settings.service_name);
  char copy[HAL_TS_TEXT_SIZE];
  EXPECT_EQ(HAL_OK, hal_service_get_name(service, copy, sizeof(copy)));
  EXPECT_EQ(std::string(62, 'n'), copy);
}

TEST_F(HalTs, ServiceTypeKeepsItsLowByte) {
  hal_service_t* service = hal_ts_new_service(ts());
  EXPECT_EQ(HAL_OK, hal_service_set_type(service, 0x1234));
  EXPECT_EQ(0x34, service->settings.type);
}

TEST_F(HalTs, SetterStoresOnlyWhatTheDriverAccepted) {
  hal_ts_t* t = ts();
  t->set.tsid = set_tsid;
  EXPECT_EQ(HAL_OK, hal_ts_set_tsid(t, 7));
  failing = "tsid";
  failure = HAL_MOD_TARN_ERR;
  EXPECT_EQ(HAL_MOD_TARN_ERR, hal_ts_set_tsid(t, 8));
  EXPECT_EQ(7, t->settings.tsid);
  EXPECT_EQ(HAL_MOD_TARN_ERR, t->hal_object.err);
  EXPECT_EQ((std::vector<std::string>{"tsid=7", "tsid=8"}), calls);
}

TEST_F(HalTs, GetterLetsTheDriverRefreshTheStoredValue) {
  hal_ts_t* t = ts();
  t->get.tsid = get_tsid;
  uint16_t tsid = 1;
  EXPECT_EQ(HAL_OK, hal_ts_get_tsid(t, &tsid));
  EXPECT_EQ(0x4242, tsid);
  EXPECT_EQ(0x4242, t->settings.tsid);

  failing = "get tsid";
  failure = HAL_I2C_ERR;
  t->settings.tsid = 5;
  tsid = 1;
  EXPECT_EQ(HAL_I2C_ERR, hal_ts_get_tsid(t, &tsid));
  EXPECT_EQ(1, tsid); /* not written on failure */
  EXPECT_EQ(0x4242, t->settings.tsid);
}

TEST_F(HalTs, TextGetterCopiesOut64WhateverTheCallerSays) {
  hal_ts_t* t = ts();
  hal_ts_set_network_name(t, "a name of twenty-six chars");
  t->get.network_name = get_name;
  char name[64];
  EXPECT_EQ(HAL_OK, hal_ts_get_network_name(t, name, 10));
  EXPECT_STREQ("from driv", name); /* the driver was told 10 */
  EXPECT_EQ((std::vector<std::string>{"get name 10"}), calls);
  t->get.network_name = nullptr;
  hal_ts_set_network_name(t, "a name of twenty-six chars");
  EXPECT_EQ(HAL_OK, hal_ts_get_network_name(t, name, 10));
  EXPECT_STREQ("a name of twenty-six chars", name);
}

TEST_F(HalTs, SetAllPushesInOrderAndStopsAtTheFirstFailure) {
  hal_ts_t* t = ts();
  t->set = {set_tsid, set_onid, set_nid, set_pds, set_name, set_version};
  t->settings.tsid = 1;
  t->settings.onid = 2;
  t->settings.nid = 3;
  t->settings.private_data_specifier = 4;
  snprintf(t->settings.network_name, sizeof(t->settings.network_name), "net");
  t->settings.network_version = 6;
  EXPECT_EQ(HAL_OK, hal_ts_set_all(t));
  EXPECT_EQ((std::vector<std::string>{"tsid=1", "onid=2", "nid=3", "pds=4", "name=net", "version=6"}), calls);
  EXPECT_STREQ("net", t->settings.network_name);

  calls.clear();
  failing = "nid";
  failure = HAL_ERR;
  EXPECT_EQ(HAL_ERR, hal_ts_set_all(t));
  EXPECT_EQ(HAL_ERR, t->hal_object.err);
  EXPECT_EQ((std::vector<std::string>{"tsid=1", "onid=2", "nid=3"}), calls);
}

TEST_F(HalTs, GetAllReadsTheNameWithSize64) {
  hal_ts_t* t = ts();
  t->get.tsid = get_tsid;
  t->get.network_name = get_name;
  EXPECT_EQ(HAL_OK, hal_ts_get_all(t));
  EXPECT_EQ((std::vector<std::string>{"get tsid", "get name 64"}), calls);
  EXPECT_EQ(0x4242, t->settings.tsid);
  EXPECT_STREQ("from driver", t->settings.network_name);
}

TEST_F(HalTs, EnabledOperationIsGivenTheServiceTag) {
  hal_ts_t* parent = ts();
  hal_ts_new_service(parent);
  hal_service_t* service = hal_ts_new_service(parent);
  service->hal_object.user = service;
  service->set.enabled = set_enabled;
  EXPECT_EQ(HAL_OK, hal_service_set_enabled(service, 1));
  EXPECT_EQ(1, service->enabled);
  EXPECT_EQ((std::vector<std::string>{"enabled tag 1 = 1 user"}), calls);
}

TEST_F(HalTs, ServiceSetAllEndsWithEnabled) {
  hal_service_t* service = hal_ts_new_service(ts());
  service->set.enabled = set_enabled;
  service->enabled = 1;
  EXPECT_EQ(HAL_OK, hal_service_set_all(service));
  EXPECT_EQ((std::vector<std::string>{"enabled tag 0 = 1"}), calls);
}

TEST_F(HalTs, StreamAccessorsStoreInMemoryWithoutOperations) {
  hal_stream_t* stream = hal_service_new_stream(hal_ts_new_service(ts()));
  EXPECT_EQ(HAL_OK, hal_stream_set_pid(stream, 0x100));
  EXPECT_EQ(HAL_OK, hal_stream_set_type(stream, HAL_H264));
  EXPECT_EQ(HAL_OK, hal_stream_set_bitrate(stream, 6000));
  uint16_t pid = 0;
  uint16_t bitrate = 0;
  hal_stream_type_t type = HAL_STREAM_TYPE_UNKNOWN;
  EXPECT_EQ(HAL_OK, hal_stream_get_pid(stream, &pid));
  EXPECT_EQ(HAL_OK, hal_stream_get_type(stream, &type));
  EXPECT_EQ(HAL_OK, hal_stream_get_bitrate(stream, &bitrate));
  EXPECT_EQ(0x100, pid);
  EXPECT_EQ(HAL_H264, type);
  EXPECT_EQ(6000, bitrate);
  EXPECT_EQ(HAL_OK, hal_stream_set_all(stream));
  EXPECT_EQ(HAL_OK, hal_stream_get_all(stream));
}

TEST_F(HalTs, ChangeSeenWithoutTakingItInKeepsReporting) {
  hal_ts_t* t = ts();
  testing::internal::CaptureStderr();
  EXPECT_EQ(1, hal_ts_changed(t, 1));
  testing::internal::GetCapturedStderr();
  hal_ts_set_tsid(t, 99);

  testing::internal::CaptureStderr();
  EXPECT_EQ(1, hal_ts_changed(t, 0));
  EXPECT_EQ(1, hal_ts_changed(t, 0));
  std::vector<std::string> seen = warnings_in(testing::internal::GetCapturedStderr());
  ASSERT_EQ(6u, seen.size());
  EXPECT_TRUE(
      std::regex_match(seen[0], std::regex("hal_ts_changed: crc calc -?[0-9]+ ; crc stored -?[0-9]+ !!")));
  EXPECT_EQ(seen[0], seen[3]);
  EXPECT_EQ("hal_ts_changed: ts_changed !!", seen[2]);

  testing::internal::CaptureStderr();
  EXPECT_EQ(1, hal_ts_changed(t, 1));
  EXPECT_EQ(0, hal_ts_changed(t, 1));
  EXPECT_EQ(0, hal_ts_changed(t, 0));
  seen = warnings_in(testing::internal::GetCapturedStderr());
  ASSERT_EQ(3u, seen.size());
  EXPECT_EQ("hal_ts_changed: stored crc " + std::to_string(static_cast<int>(t->settings_crc)) + " !!",
            seen[1]);
}

TEST_F(HalTs, StoredChecksumIsPrintedSigned) {
  hal_ts_t* t = ts();
  t->settings_crc = 0xFFFFFFFF;
  testing::internal::CaptureStderr();
  hal_ts_changed(t, 0);
  std::vector<std::string> seen = warnings_in(testing::internal::GetCapturedStderr());
  ASSERT_EQ(3u, seen.size());
  EXPECT_TRUE(std::regex_match(seen[0], std::regex("hal_ts_changed: crc calc -?[0-9]+ ; crc stored -1 !!")));
  EXPECT_EQ("hal_ts_changed: stored crc -1 !!", seen[1]);
}

TEST_F(HalTs, NewMembersCountAsChangedAndRemovalsDoNot) {
  hal_ts_t* t = ts();
  testing::internal::CaptureStderr();
  hal_ts_changed(t, 1);
  hal_service_t* service = hal_ts_new_service(t);
  EXPECT_EQ(1, hal_ts_changed(t, 1));
  hal_stream_t* stream = hal_service_new_stream(service);
  EXPECT_EQ(1, hal_ts_changed(t, 1));
  EXPECT_EQ(0, hal_ts_changed(t, 1));
  delete_hal_object(&stream->hal_object);
  EXPECT_EQ(0, hal_ts_changed(t, 1));
  t->settings_crc++; /* how a remover makes its removal seen */
  EXPECT_EQ(1, hal_ts_changed(t, 1));
  EXPECT_EQ(0, hal_ts_changed(t, 1));
  testing::internal::GetCapturedStderr();
}

TEST_F(HalTs, TogglingEnabledAloneChangesTheTs) {
  hal_ts_t* t = ts();
  hal_service_t* service = hal_ts_new_service(t);
  testing::internal::CaptureStderr();
  hal_ts_changed(t, 1);
  hal_service_set_enabled(service, 1);
  EXPECT_EQ(1, hal_ts_changed(t, 1));
  hal_service_set_enabled(service, 0);
  EXPECT_EQ(1, hal_ts_changed(t, 1));
  EXPECT_EQ(0, hal_ts_changed(t, 1));
  testing::internal::GetCapturedStderr();
}

TEST_F(HalTs, EveryStreamTakesInItsChange) {
  hal_service_t* service = hal_ts_new_service(ts());
  hal_stream_t* first = hal_service_new_stream(service);
  hal_stream_t* second = hal_service_new_stream(service);
  EXPECT_EQ(1, hal_service_changed(service, 1));
  EXPECT_EQ(0, hal_stream_changed(first, 0));
  EXPECT_EQ(0, hal_stream_changed(second, 0));
}

TEST_F(HalTs, EqualSettingsGiveEqualChecksums) {
  hal_ts_t* a = ts();
  hal_ts_t* b = ts();
  hal_ts_set_network_name(a, "a longer name that would leave bytes behind");
  hal_ts_set_network_name(a, "x");
  hal_ts_set_network_name(b, "x");
  testing::internal::CaptureStderr();
  hal_ts_changed(a, 1);
  hal_ts_changed(b, 1);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(a->settings_crc, b->settings_crc);
  EXPECT_NE(0u, a->settings_crc);
}

/* zlib's crc32 of the parts laid end to end, computed directly. */
uint32_t zlib_crc(std::initializer_list<std::pair<const void*, size_t>> parts) {
  uLong crc = crc32(0, NULL, 0);
  for (const auto& part : parts)
    crc = crc32(crc, static_cast<const Bytef*>(part.first), static_cast<uInt>(part.second));
  return static_cast<uint32_t>(crc);
}

TEST_F(HalTs, ChecksumsAreZlibsCrc32OfTheGroups) {
  hal_ts_t* t = ts();
  hal_service_t* service = hal_ts_new_service(t);
  hal_stream_t* stream = hal_service_new_stream(service);
  hal_ts_set_network_name(t, "net");
  hal_service_set_name(service, "one");
  hal_service_set_enabled(service, 1);
  hal_stream_set_pid(stream, 0x101);
  testing::internal::CaptureStderr();
  hal_ts_changed(t, 1);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(zlib_crc({{&t->settings, sizeof(t->settings)}}), t->settings_crc);
  EXPECT_EQ(zlib_crc({{&service->settings, sizeof(service->settings)}, {&service->enabled, 1}}),
            service->settings_crc);
  EXPECT_EQ(zlib_crc({{&stream->settings, sizeof(stream->settings)}}), stream->settings_crc);
}

TEST_F(HalTs, BytesWrittenDirectlyAfterAnUnchangedTestAreSeen) {
  hal_ts_t* t = ts();
  hal_service_t* service = hal_ts_new_service(t);
  hal_stream_t* stream = hal_service_new_stream(service);
  testing::internal::CaptureStderr();
  hal_ts_changed(t, 1);
  EXPECT_EQ(0, hal_ts_changed(t, 1));
  /* as mirroring copies a source's settings */
  memcpy(t->settings.network_name, "copied", sizeof("copied"));
  EXPECT_EQ(1, hal_ts_changed(t, 1));
  EXPECT_EQ(0, hal_ts_changed(t, 1));
  stream->settings.pid = 0x200;
  EXPECT_EQ(1, hal_ts_changed(t, 1));
  EXPECT_EQ(0, hal_ts_changed(t, 1));
  testing::internal::GetCapturedStderr();
}

TEST_F(HalTs, SyncPsiWithoutOperationIsOk) {
  hal_ts_t* t = ts();
  t->hal_object.err = HAL_ERR;
  EXPECT_EQ(HAL_OK, hal_ts_sync_psi(t, ts()));
  EXPECT_EQ(HAL_OK, t->hal_object.err);
}

TEST_F(HalTs, SyncPsiHandsBothStreamsToTheOperation) {
  hal_ts_t* to = ts();
  hal_ts_t* from = ts();
  to->sync.psi = fake_psi;
  failing = "psi";
  failure = HAL_MOD_TARN_ERR;
  EXPECT_EQ(HAL_MOD_TARN_ERR, hal_ts_sync_psi(to, from));
  EXPECT_EQ(HAL_MOD_TARN_ERR, to->hal_object.err);
  EXPECT_EQ((std::vector<std::string>{"psi 0 from 1"}), calls);
}

TEST_F(HalTs, FindBySidReturnsTheServiceAddedLast) {
  hal_ts_t* t = ts();
  service(t, 5, "first", {});
  hal_service_t* last = service(t, 5, "last", {});
  EXPECT_EQ(last, hal_ts_find_service(t, 5));
  EXPECT_EQ(nullptr, hal_ts_find_service(t, 6));
  EXPECT_EQ(last, hal_ts_find_service_by_tag(t, last->tag));
  EXPECT_EQ(nullptr, hal_ts_find_service_by_tag(t, 99));
}

TEST_F(HalTs, FindStreamsByPidAndTag) {
  hal_service_t* s = service(ts(), 1, "s", {0x100, 0x101});
  hal_stream_t* found = hal_service_find_stream(s, 0x100);
  ASSERT_NE(nullptr, found);
  EXPECT_EQ(0x100, found->settings.pid);
  EXPECT_EQ(found, hal_service_find_stream_by_tag(s, found->tag));
  EXPECT_EQ(nullptr, hal_service_find_stream(s, 0x102));
  EXPECT_EQ(nullptr, hal_service_find_stream_by_tag(s, 42));
}

class HalTsMirror : public HalTs {
 protected:
  const hal_ts_mirror_t mirror = {"hal_output_rf_sync", "F", "G"};
};

TEST_F(HalTsMirror, CopiesServicesAndStreamsWithTheirTags) {
  hal_ts_t* tsin = ts();
  hal_ts_t* tsout = ts();
  hal_service_t* source = service(tsin, 10, "one", {0x100, 0x101});
  source->enabled = 1;
  verbose = 1;
  testing::internal::CaptureStdout();
  hal_ts_mirror_services(tsout, tsin, &mirror);
  EXPECT_EQ((std::vector<std::string>{"Add service (tag: 0, name: \"one\", enabled: 0)"}),
            messages_in(testing::internal::GetCapturedStdout()));
  hal_service_t* copy = hal_ts_find_service_by_tag(tsout, source->tag);
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(0, copy->enabled); /* the operator's choice, never copied */
  EXPECT_EQ(10, copy->settings.sid);
  EXPECT_STREQ("one", copy->settings.service_name);
  ASSERT_EQ(2u, copy->stream_list.node_count);
  for (uint16_t pid : {0x100, 0x101}) {
    hal_stream_t* original = hal_service_find_stream(source, pid);
    hal_stream_t* mirrored = hal_service_find_stream(copy, pid);
    ASSERT_NE(nullptr, mirrored);
    EXPECT_EQ(original->tag, mirrored->tag);
  }
}

TEST_F(HalTsMirror, UpdateOverwritesAllButEnabledAndDropsVanishedStreams) {
  hal_ts_t* tsin = ts();
  hal_ts_t* tsout = ts();
  hal_service_t* source = service(tsin, 10, "one", {0x100, 0x101});
  hal_ts_mirror_services(tsout, tsin, &mirror);
  hal_service_t* copy = hal_ts_find_service_by_tag(tsout, source->tag);
  copy->enabled = 1;
  hal_service_set_name(copy, "renamed");
  uint32_t crc = copy->settings_crc;
  delete_hal_object(&hal_service_find_stream(source, 0x101)->hal_object);
  hal_stream_set_pid(hal_service_find_stream(source, 0x100), 0x200);

  verbose = 1;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  hal_ts_mirror_services(tsout, tsin, &mirror);
  EXPECT_EQ((std::vector<std::string>{"hal_output_rf_sync: G"}),
            warnings_in(testing::internal::GetCapturedStderr()));
  EXPECT_EQ((std::vector<std::string>{"Update service (tag: 0, name: \"one\", enabled: 1)"}),
            messages_in(testing::internal::GetCapturedStdout()));
  EXPECT_EQ(crc + 1, copy->settings_crc);
  ASSERT_EQ(1u, copy->stream_list.node_count);
  EXPECT_EQ(0x200, reinterpret_cast<hal_stream_t*>(copy->stream_list.head)->settings.pid);
}

TEST_F(HalTsMirror, RemovesServicesNoSourceCarries) {
  hal_ts_t* in0 = ts();
  hal_ts_t* in1 = ts();
  hal_ts_t* tsout = ts();
  hal_service_t* kept = service(in1, 1, "kept", {0x100});
  hal_service_t* gone = service(in0, 2, "gone", {0x200, 0x201});
  hal_service_t* also_gone = service(in0, 3, "also gone", {});
  hal_ts_mirror_services(tsout, in0, &mirror);
  hal_ts_mirror_services(tsout, in1, &mirror);
  gone->hal_object.delete_(&gone->hal_object);
  also_gone->hal_object.delete_(&also_gone->hal_object);
  uint32_t crc = tsout->settings_crc;

  hal_ts_t* sources[] = {in0, nullptr, in1};
  verbose = 1;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  hal_ts_mirror_remove_stale(tsout, sources, 3, &mirror);
  EXPECT_EQ((std::vector<std::string>{"hal_output_rf_sync: F", "hal_output_rf_sync: F"}),
            warnings_in(testing::internal::GetCapturedStderr()));
  EXPECT_EQ((std::vector<std::string>{"Remove service (tag: 1, name: \"gone\")",
                                      "Remove service (tag: 2, name: \"also gone\")"}),
            messages_in(testing::internal::GetCapturedStdout()));
  EXPECT_EQ(crc + 2, tsout->settings_crc);
  ASSERT_EQ(1u, tsout->service_list.node_count);
  EXPECT_EQ(kept->tag, reinterpret_cast<hal_service_t*>(tsout->service_list.head)->tag);
}

TEST_F(HalTsMirror, IdentityIsCopiedAndPushed) {
  hal_ts_t* to = ts();
  hal_ts_t* from = ts();
  to->set = {set_tsid, set_onid, set_nid, set_pds, set_name, set_version};
  from->settings = {1, 2, 3, 4, "net", 6};
  verbose = 1;
  testing::internal::CaptureStdout();
  EXPECT_EQ(HAL_OK, hal_ts_mirror_identity(to, from));
  EXPECT_EQ(
      (std::vector<std::string>{"Update TSIN (TSID: 1, ONID: 2, NID: 3, private_data_spec: 4, network_name: "
                                "\"net\", network_version: 6)"}),
      messages_in(testing::internal::GetCapturedStdout()));
  EXPECT_EQ((std::vector<std::string>{"tsid=1", "onid=2", "nid=3", "pds=4", "name=net", "version=6"}), calls);
  failing = "onid";
  failure = HAL_ERR;
  EXPECT_EQ(HAL_ERR, hal_ts_mirror_identity(to, from));
}

TEST_F(HalTsMirror, EnabledFlowsBackByTag) {
  hal_ts_t* tsin = ts();
  hal_ts_t* tsout = ts();
  service(tsin, 1, "a", {});
  service(tsin, 2, "b", {});
  hal_ts_mirror_services(tsout, tsin, &mirror);
  service(tsin, 3, "not mirrored", {});
  EXPECT_EQ(0, hal_ts_mirror_enabled(tsin, tsout));
  hal_service_set_enabled(hal_ts_find_service(tsout, 2), 1);
  verbose = 1;
  testing::internal::CaptureStdout();
  EXPECT_EQ(1, hal_ts_mirror_enabled(tsin, tsout));
  EXPECT_EQ((std::vector<std::string>{"Update service (tag: 1, name: \"b\", enabled: 1)",
                                      "Update service (tag: 0, name: \"a\", enabled: 0)"}),
            messages_in(testing::internal::GetCapturedStdout()));
  EXPECT_EQ(1, hal_ts_find_service(tsin, 2)->enabled);
}

}  // namespace
