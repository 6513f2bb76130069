// The pacers (see srv_source_pacer.h): each thread keeps its sources with
// their next frame, sends every frame that is due, and sleeps until the
// earliest next one or until a source is handed over.
#include "host/server/srv_source_pacer.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cmath>
#include <memory>
#include <vector>

#include "host/server/srv_crash.h"
#include "host/server/srv_source.h"
#include "platform/pl_clock.h"
#include "platform/pl_sync.h"
#include "platform/pl_thread.h"

namespace {

// A frame due this soon goes out now: a shorter sleep would cost more than
// it is worth.
const double EARLY_US = 1000.0;
const int PACER_NICE = -10;

struct Paced {
  SrvSource* m_p_source = nullptr;
  double m_d_start_at_us = 0;  // on the grid, from the grid's origin
  int64_t m_i64_start_us = 0;  // wall time of the start, for the frames' times
  SrvMediaFrame m_frame;       // the next frame, not yet sent
};

struct Pacer {
  SrvPacers* m_p_pool = nullptr;
  PlThread* m_p_thread = nullptr;
  PlEvent m_wake{false, false};
  PlCritSect m_cs;  // guards m_paced; held while frames go out
  std::vector<Paced> m_paced;
  bool m_b_quit = false;
};

}  // namespace

struct SrvPacers {
  std::vector<std::unique_ptr<Pacer>> m_pacers;
  int64_t m_i64_epoch_perf = 0;  // the grid's origin
  double m_d_ticks_per_us = 0;
};

namespace {

double NowUs(const SrvPacers& pool_av) {
  return static_cast<double>(PlPerfCounter() - pool_av.m_i64_epoch_perf) / pool_av.m_d_ticks_per_us;
}

// The source's next frame, or false when it has no more to send.
bool Fetch(Paced* p_av) {
  SrvSource* p_src_lv = p_av->m_p_source;
  int64_t i64_max_lv = p_src_lv->m_p_settings->m_i64_max_frames;
  if (i64_max_lv > 0 && p_src_lv->m_counts.m_i64_sent >= i64_max_lv) return false;
  return p_src_lv->m_p_kind->m_p_next(p_src_lv, &p_av->m_frame);
}

// Sends the source's frames that are due by d_until_us; false when the
// source has ended. Gives the time of its next frame.
bool SendDue(const SrvPacers& pool_av, Paced* p_av, double d_until_us_av, double* p_next_us_av) {
  SrvSource* p_src_lv = p_av->m_p_source;
  for (;;) {
    double d_due_us_lv = p_av->m_d_start_at_us + static_cast<double>(p_av->m_frame.m_i64_offset_us);
    if (d_due_us_lv > d_until_us_av) return *p_next_us_av = d_due_us_lv, true;
    if (p_src_lv->m_p_stop->IsSet()) return false;
    // How far behind its time the frame goes out: a machine that cannot
    // keep up shows here first.
    int64_t i64_late_lv = static_cast<int64_t>(NowUs(pool_av) - d_due_us_lv);
    if (i64_late_lv > p_src_lv->m_counts.m_i64_max_late_us) p_src_lv->m_counts.m_i64_max_late_us = i64_late_lv;
    SrvSourceSendFrame(p_src_lv, p_av->m_frame, p_av->m_i64_start_us + p_av->m_frame.m_i64_offset_us);
    if (!Fetch(p_av)) return false;
  }
}

// One pass over the pacer's sources; the time of the earliest next frame,
// or a negative value when it has none.
double Sweep(Pacer* p_av) {
  const SrvPacers& pool_lv = *p_av->m_p_pool;
  double d_next_lv = -1;
  double d_until_lv = NowUs(pool_lv) + EARLY_US;
  std::vector<Paced>& paced_lv = p_av->m_paced;
  for (size_t ui_lv = 0; ui_lv < paced_lv.size();) {
    double d_at_lv = 0;
    if (!SendDue(pool_lv, &paced_lv[ui_lv], d_until_lv, &d_at_lv)) {
      paced_lv[ui_lv].m_p_source->m_counts.m_b_done = true;
      paced_lv[ui_lv] = paced_lv.back();
      paced_lv.pop_back();
      continue;
    }
    if (d_next_lv < 0 || d_at_lv < d_next_lv) d_next_lv = d_at_lv;
    ++ui_lv;
  }
  return d_next_lv;
}

uint32_t PacerThread(void* p_arg_av) {
  Pacer* p_lv = static_cast<Pacer*>(p_arg_av);
  SrvCrashThreadBegin();
  // A few pacers stand for the sources of many cameras: among the many
  // threads of the channels they ask for a larger share of the processors,
  // where the system allows it (the run goes on at the usual share if not).
  setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), PACER_NICE);
  for (;;) {
    double d_next_lv;
    {
      PlCritLock lock_lv(&p_lv->m_cs);
      if (p_lv->m_b_quit) break;
      d_next_lv = Sweep(p_lv);
    }
    uint32_t ui_wait_ms_lv = PL_INFINITE;
    if (d_next_lv >= 0) {
      double d_left_us_lv = d_next_lv - NowUs(*p_lv->m_p_pool);
      ui_wait_ms_lv = d_left_us_lv <= EARLY_US ? 0 : static_cast<uint32_t>(std::ceil(d_left_us_lv / 1000.0));
    }
    if (ui_wait_ms_lv != 0) p_lv->m_wake.Wait(ui_wait_ms_lv);
  }
  SrvCrashThreadEnd();
  return 0;
}

}  // namespace

SrvPacers* SrvPacersCreate(int i_threads_av) {
  SrvPacers* p_lv = new SrvPacers();
  p_lv->m_i64_epoch_perf = PlPerfCounter();
  p_lv->m_d_ticks_per_us = static_cast<double>(PlPerfFrequency()) / 1e6;
  long l_cpus_lv = sysconf(_SC_NPROCESSORS_ONLN);
  int i_count_lv = i_threads_av > 0 ? i_threads_av : (l_cpus_lv > 0 ? static_cast<int>(l_cpus_lv) : 1);
  for (int i_lv = 0; i_lv < i_count_lv; ++i_lv) {
    p_lv->m_pacers.emplace_back(new Pacer());
    Pacer* p_pacer_lv = p_lv->m_pacers.back().get();
    p_pacer_lv->m_p_pool = p_lv;
    p_pacer_lv->m_p_thread = PlThread::Create(&PacerThread, p_pacer_lv, 0, false);
    if (p_pacer_lv->m_p_thread == nullptr) {
      p_lv->m_pacers.pop_back();
      break;
    }
  }
  if (p_lv->m_pacers.empty()) return delete p_lv, nullptr;
  return p_lv;
}

void SrvPacersDestroy(SrvPacers* p_av) {
  if (p_av == nullptr) return;
  for (auto& p_pacer_lv : p_av->m_pacers) {
    {
      PlCritLock lock_lv(&p_pacer_lv->m_cs);
      p_pacer_lv->m_b_quit = true;
    }
    p_pacer_lv->m_wake.Set();
    p_pacer_lv->m_p_thread->Join(PL_INFINITE);
    PlThread::Close(p_pacer_lv->m_p_thread);
  }
  delete p_av;
}

void SrvPacersAdd(SrvPacers* p_av, SrvSource* p_source_av) {
  // The pacer with the fewest sources; a short look, as sources come rarely.
  Pacer* p_best_lv = nullptr;
  size_t ui_best_lv = 0;
  for (auto& p_pacer_lv : p_av->m_pacers) {
    PlCritLock lock_lv(&p_pacer_lv->m_cs);
    if (p_best_lv == nullptr || p_pacer_lv->m_paced.size() < ui_best_lv) {
      p_best_lv = p_pacer_lv.get();
      ui_best_lv = p_pacer_lv->m_paced.size();
    }
  }
  Paced paced_lv;
  paced_lv.m_p_source = p_source_av;
  // The start goes to the next step of the grid, the wall time with it.
  double d_now_us_lv = NowUs(*p_av);
  double d_start_us_lv = std::ceil(d_now_us_lv / SRV_PACE_GRID_US) * SRV_PACE_GRID_US;
  paced_lv.m_d_start_at_us = d_start_us_lv;
  paced_lv.m_i64_start_us = static_cast<int64_t>((PlFileTimeUtc() - PL_UNIX_EPOCH_TICKS) / 10) +
                            static_cast<int64_t>(d_start_us_lv - d_now_us_lv);
  PlCritLock lock_lv(&p_best_lv->m_cs);
  if (!Fetch(&paced_lv)) {
    p_source_av->m_counts.m_b_done = true;
    return;
  }
  p_best_lv->m_paced.push_back(paced_lv);
  p_best_lv->m_wake.Set();
}

void SrvPacersRemove(SrvPacers* p_av, SrvSource* p_source_av) {
  if (p_av == nullptr) return;
  for (auto& p_pacer_lv : p_av->m_pacers) {
    PlCritLock lock_lv(&p_pacer_lv->m_cs);
    std::vector<Paced>& paced_lv = p_pacer_lv->m_paced;
    for (size_t ui_lv = 0; ui_lv < paced_lv.size(); ++ui_lv) {
      if (paced_lv[ui_lv].m_p_source != p_source_av) continue;
      paced_lv[ui_lv] = paced_lv.back();
      paced_lv.pop_back();
      p_source_av->m_counts.m_b_done = true;
      return;
    }
  }
}
