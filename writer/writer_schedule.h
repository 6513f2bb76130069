// A channel's binding to the weekly schedule: it finds the writer section of
// the configuration, holds the two schedule tracks, and remembers whether
// the document carried a plan. Made by the channel open, fed again by each
// reconfiguration, destroyed with the channel.
#pragma once

#include <cstdint>

#include <yajl/yajl_tree.h>

#include "host/include/core_api.h"

class CWriter;

class WriterSchedule {
 public:
  explicit WriterSchedule(CWriter* p_writer_av);
  ~WriterSchedule();
  WriterSchedule(const WriterSchedule&) = delete;
  WriterSchedule& operator=(const WriterSchedule&) = delete;

  static void on_schedule_out(void* p_user_av, ProfileParam* p_params_av);

  TrackHandle m_h_spare[2];
  TrackHandle m_h_track_schedule_in;
  TrackHandle m_h_track_schedule_out;
  int32_t m_i_task_id;
  int32_t m_b_state;
  int32_t m_b_is_shedule_present;
  CWriter* m_p_writer;
};

// Finds the writer section ("archive" whose "_type"/"_value" is "writer")
// in the last "json" element and hands it to LoadFromNode.
void LoadFromParams(WriterSchedule* p_av, ProfileParam* p_params_av);
void LoadFromNode(WriterSchedule* p_av, yajl_val node_av);
