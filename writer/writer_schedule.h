// A channel's binding to the weekly schedule: it finds the writer section of
// the configuration, holds the two schedule tracks, asks the host for the
// calendar of holidays and working weekends, keeps one task of the schedule
// engine for the channel's "_schedule" plan, and turns the engine's hour
// state into m_b_state, which the frame path's gate reads. Made by the
// channel open, fed again by each reconfiguration, destroyed with the
// channel.
#pragma once

#include <cstdint>

#include <yajl/yajl_tree.h>

#include "include/host/core_api.h"

class CWriter;

class WriterSchedule {
 public:
  explicit WriterSchedule(CWriter* p_writer_av);
  // Closes the tracks, then gives the task back to the engine.
  ~WriterSchedule();
  WriterSchedule(const WriterSchedule&) = delete;
  WriterSchedule& operator=(const WriterSchedule&) = delete;

  // The engine's call when the present hour's state changed (0 inside the
  // plan, 1 outside); runs on the engine's thread under its task lock.
  void schedule_invoker(int32_t i_state_av);
  // The host's calendar answer on "track_schedule_out".
  static void on_schedule_out(void* p_user_av, ProfileParam* p_params_av);

  TrackHandle m_h_spare[2];
  TrackHandle m_h_track_schedule_in;
  TrackHandle m_h_track_schedule_out;
  int32_t m_i_task_id;             // -1: no task
  int32_t m_b_state;               // 1: the present hour is inside the plan
  int32_t m_b_is_shedule_present;  // the document held a plan; never cleared
  CWriter* m_p_writer;
};

// Finds the writer section ("archive" whose "_type"/"_value" is "writer")
// in the last "json" element and hands it to LoadFromNode.
void LoadFromParams(WriterSchedule* p_av, ProfileParam* p_params_av);
// Reopens the tracks, asks for the calendar and sets up or updates the task
// of a "_schedule" in the section. A section without one keeps the plan in
// force.
void LoadFromNode(WriterSchedule* p_av, yajl_val node_av);
