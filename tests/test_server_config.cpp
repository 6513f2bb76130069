// The server's command line, cameras file and the answers its host tracks
// give: what a person types or writes and what the plug-in is told back;
// and how a frame's fate is named from what the plug-in did with it.
#include "host/server/srv_account.h"
#include "host/server/srv_config.h"
#include "host/server/srv_media.h"
#include "include/host/archive_api.h"
#include "host/server/srv_tracks.h"

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::string Camera(const std::string& name, const std::string& extra = "") {
  return R"({"name":")" + name + R"(",)" + extra +
         R"("config":{"common":{"key1":"h","key2":")" + name + R"(","key3":"k3"},)"
         R"("archive":{"writer":{"in":{"_value":"src"},"arc_key1":{"_value":"A"},"arc_key2":{"_value":")" +
         name + R"("},"arc_key3":{"_value":"C"}}}}})";
}

bool Parse(const std::string& text, SrvSettings* out, std::string* error) {
  return SrvParseCamerasText(text, "/etc/cams.json", out, error);
}

TEST(ServerConfig, CommandLineTakesItsOptionsAndRefusesOthers) {
  SrvSettings s;
  s.m_s_exe_dir = "/opt/w";
  std::string error;
  const char* argv[] = {"writer-host", "--duration", "2.5", "--pacing", "fast", "--loop", "--write-delay", "7",
                        "--in-flight", "0"};
  ASSERT_TRUE(SrvParseArgs(10, const_cast<char**>(argv), &s, &error)) << error;
  EXPECT_DOUBLE_EQ(2.5, s.m_d_duration_s);
  EXPECT_FALSE(s.m_b_paced);
  EXPECT_TRUE(s.m_b_loop);
  EXPECT_EQ(7, s.m_i_write_delay_ms);
  EXPECT_EQ(0, s.m_i_in_flight);
  EXPECT_EQ("/opt/w/archive_data", s.m_s_archive_root);
  EXPECT_EQ("/opt/w/log", s.m_s_log_dir);
  EXPECT_EQ("/opt/w", s.m_s_lib_dir);

  const std::vector<std::vector<const char*>> bad = {
      {"writer-host", "--frobnicate"}, {"writer-host", "--duration"}, {"writer-host", "--duration", "soon"},
      {"writer-host", "--pacing", "slow"}, {"writer-host", "--drain", "-1"},
      // Numbers that would never end a run or wrap as integers.
      {"writer-host", "--duration", "inf"}, {"writer-host", "--duration", "nan"},
      {"writer-host", "--frames", "1e30"}, {"writer-host", "--frames", "2.5"},
      {"writer-host", "--write-delay", "1e10"}, {"writer-host", "--in-flight", "1e12"},
      {"writer-host", "--in-flight", "-3"}, {"writer-host", "--drain", "1e300"}};
  for (const auto& args : bad) {
    SrvSettings t;
    error.clear();
    EXPECT_FALSE(SrvParseArgs(static_cast<int>(args.size()), const_cast<char**>(args.data()), &t, &error)) << args[1];
    EXPECT_NE(std::string::npos, error.find(args[1])) << error;
  }
}

TEST(ServerConfig, EmbeddedDefaultIsOneSyntheticCameraRecordingAlways) {
  SrvSettings s;
  std::string error;
  ASSERT_TRUE(SrvLoadCameras(&s, &error)) << error;
  ASSERT_EQ(1u, s.m_cameras.size());
  const SrvCamera& c = s.m_cameras[0];
  EXPECT_EQ("host_4201_cam1_trackSource", c.MediaTrack());
  EXPECT_EQ("host_4201_cam1", c.StatusTrack());
  EXPECT_EQ("synthetic", c.m_source.m_s_type);
  EXPECT_DOUBLE_EQ(25, c.m_source.m_d_fps);
  EXPECT_EQ(2000, c.m_source.m_i_key_interval_ms);
  EXPECT_TRUE(c.m_source.m_b_audio);
  EXPECT_EQ(20, c.m_source.m_i_audio_frame_ms);
  EXPECT_FALSE(c.m_b_by_events);
  EXPECT_TRUE(c.m_b_must_record);
  // Recording always: no schedule that could hold it back.
  EXPECT_EQ(std::string::npos, c.m_s_document.find("_schedule"));
}

TEST(ServerConfig, BadCameraFilesAreRefusedWithAMessageNamingTheFault) {
  struct Case {
    std::string text;
    std::string words;
  };
  const std::vector<Case> cases = {
      {"cameras: yes", "not JSON"},
      {"[1,2]", "not a JSON object"},
      {"{}", "missing \"cameras\""},
      {R"({"cameras":[]})", "missing \"cameras\""},
      {R"({"cameras":[{"name":"x"}]})", "camera 1 (x): missing \"config\""},
      {R"({"cameras":[{"name":"x","config":{"common":{"key1":"a","key3":"c"}}}]})", "lacks common/key2"},
      {R"({"cameras":[{"name":"x","config":{"common":{"key1":"a","key2":"b","key3":"c"}}}]})", "archive/writer/in"},
      {"{\"cameras\":[" + Camera("a", R"("source":{"type":"mjpeg"},)") + "]}", "unknown source type 'mjpeg'"},
      {"{\"cameras\":[" + Camera("a", R"("source":{"type":"h264"},)") + "]}", "needs \"file\""},
      {"{\"cameras\":[" + Camera("a", R"("source":{"type":"stream"},)") + "]}", "needs \"url\""},
      {"{\"cameras\":[" + Camera("a", R"("source":{"type":"stream","url":"rtsp://x","transport":"pigeon"},)") + "]}",
       "wrong type"},
      {"{\"cameras\":[" + Camera("a", R"("source":{"type":"stream","url":"rtsp://x","read_timeout_ms":0},)") + "]}",
       "\"read_timeout_ms\" is out of range"},
      {"{\"cameras\":[" + Camera("a", R"("source":{"fps":"fast"},)") + "]}", "wrong type"},
      {"{\"cameras\":[" + Camera("a") + "," + Camera("a") + "]}", "again"},
      {"{\"cameras\":[" + Camera("a") + R"(],"events":[{"at":1,"camera":"b","event":5,"action":"start"}]})",
       "no camera named 'b'"},
      {"{\"cameras\":[" + Camera("a") + R"(],"events":[{"at":1,"camera":"a","event":5,"action":"pause"}]})",
       "\"action\" is start, stop, start_recording or stop_recording"},
      {"{\"cameras\":[" + Camera("a") + R"(],"holidays":"january_1"})", "\"holidays\" is not a list"},
      {"{\"cameras\":[" + Camera("a") + R"(],"events":[{"at":1,"action":"start_recording"}]})",
       "needs \"camera\" or \"id\""},
      {"{\"cameras\":[" + Camera("a") + R"(],"events":[{"at":1,"camera":"z","action":"stop_recording"}]})",
       "no camera named 'z'"},
      {"{\"cameras\":[" + Camera("a") +
           R"(],"events":[{"at":1,"camera":"a","action":"start_recording",)"
           R"("duration":-5}]})",
       "whole seconds"},
      {"{\"cameras\":[" + Camera("a") +
           R"(],"events":[{"at":1,"camera":"a","action":"start_recording",)"
           R"("duration":"5"}]})",
       "whole seconds"},
      {"{\"cameras\":[" + Camera("a") + R"(],"events":[{"camera":"a","action":"start_recording"}]})", "needs \"at\""},
      {"{\"cameras\":[" + Camera("a", R"("source":{"fps":-1},)") + "]}", "\"fps\" is out of range"},
      {"{\"cameras\":[" + Camera("a", R"("source":{"fps":1e400},)") + "]}", "\"fps\" is out of range"},
      {"{\"cameras\":[" + Camera("a", R"("source":{"key_interval_ms":4294967297},)") + "]}",
       "\"key_interval_ms\" is out of range"},
      {"{\"cameras\":[" + Camera("a", R"("source":{"width":-640},)") + "]}", "\"width\" is out of range"},
      {"{\"cameras\":[" + Camera("a", R"("source":{"frame_bytes":1e9},)") + "]}", "wrong type"},
      {"{\"cameras\":[" + Camera("a") + R"(],"write_delay_ms":10000000000})", "\"write_delay_ms\" is a whole number"},
      {"{\"cameras\":[" + Camera("a") + R"(],"archive_faults":[1]})", "\"archive_faults\" is not an object"},
      {"{\"cameras\":[" + Camera("a") + R"(],"archive_faults":{"fail_one_in":-3}})", "\"fail_one_in\" is a whole number"},
      {"{\"cameras\":[" + Camera("a") + R"(],"archive_faults":{"no_write":1}})", "no switch \"no_write\""},
      {"{\"cameras\":[" + Camera("a", R"("archive_faults":{"refuse_open":1},)") + "]}", "only \"no_write\""},
      {"{\"cameras\":[" + Camera("a", R"("archive_faults":{"no_write":"all"},)") + "]}", "from 0 to 3"},
      {"{\"cameras\":[" + Camera("a") + R"(],"events":[{"at":-1,"camera":"a","event":5,"action":"start"}]})",
       "\"at\" is out of range"},
      {"{\"cameras\":[" + Camera("a") + R"(],"events":[{"at":1e300,"camera":"a","action":"start_recording"}]})",
       "\"at\" is out of range"},
      {"{\"cameras\":[" + Camera("a") +
           R"(],"events":[{"at":1,"camera":"a","event":9223372036854775807,"action":"start"}]})",
       "32-bit"},
      {"{\"cameras\":[" + Camera("a") +
           R"(],"events":[{"at":1,"camera":"a","action":"start_recording","duration":1e12}]})",
       "whole seconds"},
  };
  for (const Case& c : cases) {
    SrvSettings s;
    std::string error;
    EXPECT_FALSE(Parse(c.text, &s, &error)) << c.text;
    EXPECT_EQ(0u, error.find("/etc/cams.json: ")) << error;
    EXPECT_NE(std::string::npos, error.find(c.words)) << error;
  }
}

TEST(ServerConfig, CameraFileGivesTracksArchiveKeysCalendarAndScript) {
  std::string text = "{\"cameras\":[" + Camera("a", R"("source":{"type":"h264","file":"clips/a.h264","fps":12.5},)") +
                     "," +
                     R"({"name":"b","id":"cam-b","config":{"common":{"key1":"h","key2":"b","key3":"k3","key4":"d"},)"
                     R"("archive":{"writer":{"in":{"_value":"s"},"by_events":{"_value":true},"arc_key1":{"_value":"X"},)"
                     R"("only_key_frame":{"_value":true}}}},"archive_faults":{"no_write":3}})"
                     R"(],"archive_faults":{"fail_one_in":4},"holidays":["january_1","may_9"],"working_weekends":["june_6"],)"
                     R"("events":[{"at":0.5,"camera":"b","event":20001,"action":"start"},)"
                     R"({"at":2,"camera":"b","event":20001,"stop_event":20101,"action":"stop","guid":"{g}"}],)"
                     R"("archive":{"segment_max_seconds":60}})";
  SrvSettings s;
  std::string error;
  ASSERT_TRUE(Parse(text, &s, &error)) << error;
  ASSERT_EQ(2u, s.m_cameras.size());
  const SrvCamera& a = s.m_cameras[0];
  EXPECT_EQ("/etc/clips/a.h264", a.m_source.m_s_file);  // beside the cameras file
  EXPECT_FALSE(a.m_source.m_b_audio);
  EXPECT_DOUBLE_EQ(12.5, a.m_source.m_d_fps);
  EXPECT_EQ("A", a.m_s_arc_keys[0]);
  EXPECT_EQ("a", a.m_s_arc_keys[1]);
  EXPECT_EQ("a", a.m_s_id);
  // A partial set of arc keys gives way to the common keys, as in the plug-in.
  const SrvCamera& b = s.m_cameras[1];
  EXPECT_EQ("cam-b", b.m_s_id);
  EXPECT_EQ("h", b.m_s_arc_keys[0]);
  EXPECT_EQ("d", b.m_s_arc_keys[3]);
  EXPECT_TRUE(b.m_b_by_events);
  EXPECT_FALSE(b.m_b_must_record);
  EXPECT_TRUE(b.m_b_only_key_frame && !a.m_b_only_key_frame);
  ASSERT_EQ(1u, b.m_archive_faults.size());
  EXPECT_EQ(ARCHIVE_FAULT_NO_WRITE, b.m_archive_faults[0].m_i_fault);
  EXPECT_EQ(3, b.m_archive_faults[0].m_i64_value);
  ASSERT_EQ(1u, s.m_archive_faults.size());
  EXPECT_EQ(ARCHIVE_FAULT_FAIL_ONE_IN, s.m_archive_faults[0].m_i_fault);
  ASSERT_EQ(2u, s.m_events.size());
  EXPECT_EQ(20002, s.m_events[0].m_i_stop_event);
  EXPECT_FALSE(s.m_events[1].m_b_start);
  EXPECT_EQ(20101, s.m_events[1].m_i_stop_event);

  EXPECT_EQ(R"({"holidays":["january_1","may_9"],"working_weekends":["june_6"]})", SrvCalendarText(s));
  EXPECT_EQ(R"([{"id":"cam-b","name":"b","key1":"h","key2":"b","key3":"k3"}])", SrvListCamerasText(s, "cam-b"));
  EXPECT_EQ("[]", SrvListCamerasText(s, "b"));

  s.m_s_archive_root = "/data/arc";
  s.m_s_archive_extra = R"({"segment_max_seconds":5,"sync":true})";
  std::string json;
  ASSERT_TRUE(SrvArchiveConfig(s, &json, &error));
  EXPECT_EQ(R"({"root":"/data/arc","segment_max_seconds":5,"sync":true})", json);
  s.m_s_archive_extra = "[1]";
  EXPECT_FALSE(SrvArchiveConfig(s, &json, &error));
  EXPECT_NE(std::string::npos, error.find("--archive-config"));
}

struct Posted {
  std::vector<std::string> sysinfo;
  std::vector<int32_t> types;
  std::vector<std::string> key2;
};

void OnPosted(void* user, ProfileParam* p) {
  Posted* posted = static_cast<Posted*>(user);
  for (; p->type != PP_END; p++) {
    if (strcmp(p->name, "sysinfo") == 0) posted->sysinfo.push_back(static_cast<const char*>(p->value));
    if (strcmp(p->name, "event_type") == 0) posted->types.push_back(*static_cast<int32_t*>(p->value));
    if (strcmp(p->name, "key2") == 0) posted->key2.push_back(static_cast<const char*>(p->value));
  }
}

TEST(ServerConfig, ScriptEventsPairTheirHalvesByStopIdAndGuid) {
  Posted posted;
  ProfileCallback cb = {&posted, reinterpret_cast<void*>(&OnPosted)};
  TrackHandle rx = profile_open("track_event", &cb, __FILE__, __LINE__);
  TrackHandle tx = profile_open("track_event", nullptr, __FILE__, __LINE__);
  SrvCamera cam;
  cam.m_s_name = "door";
  cam.m_s_arc_keys[0] = "A";
  cam.m_s_arc_keys[1] = "B";
  cam.m_s_arc_keys[2] = "C";
  SrvEventStep step;
  step.m_i_event = 20001;
  step.m_i_stop_event = 20002;
  SrvPostEvent(tx, cam, step, 1);
  step.m_b_start = false;
  SrvPostEvent(tx, cam, step, 2);
  step.m_s_guid = std::string(40, 'x');  // a guid is cut to what the plug-in can read
  SrvPostEvent(tx, cam, step, 3);
  profile_close(tx);
  profile_close(rx);
  ASSERT_EQ(3u, posted.sysinfo.size());
  EXPECT_EQ(",event_stop_id=20002,guid=g20001_door,", posted.sysinfo[0]);
  EXPECT_EQ(",event_start_id=20001,guid=g20001_door,", posted.sysinfo[1]);
  EXPECT_EQ(",event_start_id=20001,guid=" + std::string(31, 'x') + ",", posted.sysinfo[2]);
  EXPECT_EQ((std::vector<int32_t>{20001, 20002, 20002}), posted.types);
  EXPECT_EQ("B", posted.key2[0]);
}

TEST(ServerConfig, SyntheticCameraIsDeterministicAndInterleavedByTime) {
  SrvSourceConfig cfg;
  cfg.m_d_fps = 25;
  cfg.m_i_key_interval_ms = 200;  // every 5th frame
  SrvSynthetic a, b;
  SrvSyntheticInit(&a, cfg, 7);
  SrvSyntheticInit(&b, cfg, 7);
  int64_t last_us = -1, video = 0, audio = 0;
  for (int i = 0; i < 60; i++) {
    SrvMediaFrame fa, fb;
    SrvSyntheticNext(&a, &fa);
    SrvSyntheticNext(&b, &fb);
    ASSERT_EQ(fa.m_ui_size, fb.m_ui_size);
    ASSERT_EQ(0, memcmp(fa.m_pb_data, fb.m_pb_data, fa.m_ui_size));
    EXPECT_GE(fa.m_i64_offset_us, last_us);
    last_us = fa.m_i64_offset_us;
    if (strcmp(fa.m_s_type, "video") == 0) {
      EXPECT_EQ(fa.m_i64_index % 5 == 0 ? 1 : 0, fa.m_i_key) << fa.m_i64_index;
      EXPECT_EQ(fa.m_i_key != 0, fa.m_ui_extra_size > 0);
      std::vector<uint8_t> again;
      SrvSyntheticVideoBytes(7, fa.m_i64_index, fa.m_ui_size, &again);
      EXPECT_EQ(0, memcmp(again.data(), fa.m_pb_data, fa.m_ui_size));
      video++;
    } else {
      EXPECT_EQ(SrvFcc("PCMA"), fa.m_ui_fcc);
      EXPECT_EQ(160u, fa.m_ui_size);
      audio++;
    }
  }
  EXPECT_EQ(20, video);  // 40 ms video against 20 ms audio
  EXPECT_EQ(40, audio);
  EXPECT_EQ(0xD5, SrvALaw(0));
  EXPECT_EQ(0x55, SrvALaw(-8));
  EXPECT_EQ(0xAA, SrvALaw(32767));
  EXPECT_EQ(0x2A, SrvALaw(-32768));
}

// The script's forced commands read as an API client's: the camera's id (or
// an id as written), the method, and a timed start's seconds as the name of
// a value-less element.
void OnCommand(void* user, ProfileParam* p) {
  std::string line;
  for (; p->type != PP_END; p++) {
    if (strcmp(p->name, "method") == 0) line += static_cast<const char*>(p->value);
    if (strcmp(p->name, "args") != 0) continue;
    for (ProfileParam* a = static_cast<ProfileParam*>(p->value); a->type != PP_END; a++)
      line += std::string(" ") + a->name +
              (a->value != nullptr ? "=" + std::string(static_cast<const char*>(a->value)) : "");
  }
  static_cast<std::vector<std::string>*>(user)->push_back(line);
}

TEST(ServerConfig, ForcedCommandsOfTheScriptGoOutAsAnApiClientSendsThem) {
  std::string text = "{\"cameras\":[" + Camera("door", R"("id":"door-1",)") +
                     R"(],"events":[{"at":1.0,"camera":"door","action":"start_recording","duration":5},)"
                     R"({"at":3.0,"camera":"door","action":"stop_recording"},)"
                     R"({"at":4,"id":"nobody","action":"start_recording"}]})";
  SrvSettings s;
  std::string error;
  ASSERT_TRUE(Parse(text, &s, &error)) << error;
  ASSERT_EQ(3u, s.m_events.size());
  std::vector<std::string> heard;
  ProfileCallback cb = {&heard, reinterpret_cast<void*>(&OnCommand)};
  TrackHandle rx = profile_open("track_vp-api", &cb, __FILE__, __LINE__);
  TrackHandle tx = profile_open("track_vp-api", nullptr, __FILE__, __LINE__);
  for (const SrvEventStep& step : s.m_events) SrvPostForced(tx, step);
  profile_close(tx);
  profile_close(rx);
  EXPECT_EQ((std::vector<std::string>{"start_recording id=door-1 5", "stop_recording id=door-1",
                                      "start_recording id=nobody"}),
            heard);
}

// What the plug-in did during a delivery names the frame's fate: a passed
// frame was asked about readiness before it was passed over; both channels
// say "data not correct" of a bad frame; a wanted frame dropped without a
// word is named only when the frame or the camera explains it.
TEST(ServerAccount, EachDeliveryIsNamedByWhatThePluginDidDuringIt) {
  SrvDelivery d;
  d.m_i_need = 2;
  EXPECT_EQ(-1, SrvClassifyDelivery(d));
  d.m_b_key_wait_possible = true;
  EXPECT_EQ(SRV_PUT_KEY_WAIT, SrvClassifyDelivery(d));
  d.m_b_key = true;
  EXPECT_EQ(-1, SrvClassifyDelivery(d));
  d.m_b_empty = true;
  EXPECT_EQ(SRV_PUT_NO_DATA, SrvClassifyDelivery(d));
  d.m_i_need = 0;
  EXPECT_EQ(SRV_PUT_NOT_WANTED, SrvClassifyDelivery(d));
  d.m_lines[SRV_LINE_BAD_DATA] = 2;
  EXPECT_EQ(SRV_PUT_BAD_DATA, SrvClassifyDelivery(d));
  d.m_lines[SRV_LINE_BEFORE_KEY] = 1;
  EXPECT_EQ(SRV_PUT_BEFORE_KEY, SrvClassifyDelivery(d));
  d.m_i64_not_ready = 1;
  EXPECT_EQ(SRV_PUT_NOT_READY, SrvClassifyDelivery(d));
  d.m_i64_ready = 1;
  EXPECT_EQ(SRV_PUT_ENTERED, SrvClassifyDelivery(d));
  d.m_lines[SRV_LINE_PASS] = 1;
  EXPECT_EQ(SRV_PUT_PASSED_OVER, SrvClassifyDelivery(d));

  // The summary's sum: what entered and was never asked about is still
  // buffered, and the ring's late writes come out of what it kept.
  SrvFrameAccount acc;
  acc.m_i64_sent = 10;
  acc.m_put[SRV_PUT_NOT_WANTED] = 1;
  acc.m_put[SRV_PUT_ENTERED] = 9;
  acc.m_get.asked = 8;
  acc.m_get.no_write = 1;
  acc.m_get.held = 4;
  acc.m_get.stored = 3;
  acc.m_get.later_stored = 2;
  EXPECT_EQ(1, acc.StillBuffered());
  EXPECT_EQ(2, acc.RingUnwritten());
  EXPECT_EQ(0, acc.Unaccounted());
  acc.m_i64_sent = 11;
  EXPECT_EQ(1, acc.Unaccounted());
}

}  // namespace
