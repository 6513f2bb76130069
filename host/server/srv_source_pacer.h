// Real-time pacing of file and synthetic sources on a few threads, as a
// server receives many cameras on a few I/O threads. A source hands itself
// over once its channels have asked for frames; from then on a pacer sends
// each of its frames at the frame's time from the source's start. The
// sources' starts are put on a common grid, so that one wake-up of a pacer
// sends the due frames of many cameras.
#pragma once

#include <cstdint>

struct SrvSource;
struct SrvPacers;

// One step of the grid: 20 ms, on which 25 and 50 frames a second and audio
// frames of 10 or 20 ms all fall.
const int64_t SRV_PACE_GRID_US = 20000;

// i_threads_av pacers; 0 for one per processor.
SrvPacers* SrvPacersCreate(int i_threads_av);
// Stops and joins the pacers; the sources still handed over are dropped.
void SrvPacersDestroy(SrvPacers* p_av);
// Hands a source over: its first frame goes out at the next step of the
// grid. The source's frames, counts and `late` figures are then the pacer's
// until the source ends (m_b_done), is stopped, or is taken back.
void SrvPacersAdd(SrvPacers* p_av, SrvSource* p_source_av);
// Takes a source back; once it returns no pacer touches the source again.
void SrvPacersRemove(SrvPacers* p_av, SrvSource* p_source_av);
