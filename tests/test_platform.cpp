// Tests of the platform layer: locks, events and waits, threads, the clock
// (real and manual, local time across a daylight-saving change), files.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/pl_clock.h"
#include "platform/pl_os.h"
#include "platform/pl_sync.h"
#include "platform/pl_thread.h"

namespace {

// Runs a lambda on a platform thread.
struct Runner {
  template <typename F>
  explicit Runner(F f) : m_fn(f) {
    m_p_thread = PlThread::Create(&Runner::Entry, this, 0, false);
  }
  ~Runner() {
    m_p_thread->Join(PL_INFINITE);
    PlThread::Close(m_p_thread);
  }
  static uint32_t Entry(void* p) {
    static_cast<Runner*>(p)->m_fn();
    return 0;
  }
  std::function<void()> m_fn;
  PlThread* m_p_thread;
};

// Manual clock for one test, real clock again afterwards.
class ManualClockTest : public ::testing::Test {
 protected:
  void SetUp() override { PlClockUseManual(PL_UNIX_EPOCH_TICKS + 1000 * PL_TICKS_PER_SECOND); }
  void TearDown() override { PlClockUseReal(); }
};

uint64_t Ticks(int y, int mo, int d, int h, int mi, int s) {
  PlCalendar c = {y, mo, 0, d, h, mi, s, 0};
  uint64_t t = 0;
  EXPECT_TRUE(PlCalendarToFileTime(&c, &t));
  return t;
}

}  // namespace

TEST(CritSect, SameThreadEntersTwiceOtherThreadWaits) {
  PlCritSect cs;
  cs.Enter();
  cs.Enter();
  std::atomic<bool> got{true};
  { Runner r([&] { got = cs.TryEnter(); }); }
  EXPECT_FALSE(got);
  cs.Leave();
  cs.Leave();
  { Runner r([&] { got = cs.TryEnter(); if (got) cs.Leave(); }); }
  EXPECT_TRUE(got);
}

TEST(Event, ManualStaysSetAutoIsConsumedByOneWait) {
  PlEvent manual(true, false), automatic(false, false);
  EXPECT_EQ(PL_WAIT_TIMEOUT, manual.Wait(0));
  manual.Set();
  automatic.Set();
  EXPECT_EQ(PL_WAIT_OBJECT_0, manual.Wait(0));
  EXPECT_EQ(PL_WAIT_OBJECT_0, manual.Wait(0));
  EXPECT_EQ(PL_WAIT_OBJECT_0, automatic.Wait(0));
  EXPECT_EQ(PL_WAIT_TIMEOUT, automatic.Wait(0));
  manual.Reset();
  EXPECT_EQ(PL_WAIT_TIMEOUT, manual.Wait(10));
}

TEST(Event, WaitAnyGivesTheSignalledIndexTheLowestFirst) {
  PlEvent a(false, false), b(false, false), c(true, false);
  PlEvent* all[3] = {&a, &b, &c};
  c.Set();
  b.Set();
  EXPECT_EQ(1u, PlWaitAny(all, 3, 0));
  EXPECT_EQ(2u, PlWaitAny(all, 3, 0));
  EXPECT_EQ(2u, PlWaitAny(all, 3, 0));  // manual reset: still set
  c.Reset();
  EXPECT_EQ(PL_WAIT_TIMEOUT, PlWaitAny(all, 3, 5));
  // A set on another thread wakes a parked wait.
  Runner r([&] { PlSleep(20); a.Set(); });
  EXPECT_EQ(0u, PlWaitAny(all, 3, 10000));
}

TEST(Event, WaitAnyRefusesBadArguments) {
  PlEvent a(false, false);
  PlEvent* with_null[2] = {&a, nullptr};
  EXPECT_EQ(PL_WAIT_FAILED, PlWaitAny(nullptr, 1, 0));
  EXPECT_EQ(PL_WAIT_FAILED, PlWaitAny(with_null, 2, 0));
  PlEvent* one[1] = {&a};
  EXPECT_EQ(PL_WAIT_FAILED, PlWaitAny(one, 0, 0));
}

TEST(Event, AutoResetReleasesOneOfTwoWaiters) {
  PlEvent ev(false, false);
  std::atomic<int> woke{0};
  {
    Runner r1([&] { if (ev.Wait(300) == PL_WAIT_OBJECT_0) ++woke; });
    Runner r2([&] { if (ev.Wait(300) == PL_WAIT_OBJECT_0) ++woke; });
    PlSleep(30);
    ev.Set();
  }
  EXPECT_EQ(1, woke.load());
}

// Sets that race a wait on its way to park, over and over: a lost wake-up
// shows as a time-out (or a hang of 10 s per loss).
TEST(Event, SetsRacingParkingWaitsAreNeverLost) {
  PlEvent stop(true, false), ping(false, false), pong(false, false);
  PlEvent* mine[2] = {&stop, &ping};
  const int rounds = 5000;
  std::atomic<int> lost{0}, served{0};
  {
    Runner echo([&] {
      for (;;) {
        uint32_t r = PlWaitAny(mine, 2, 10000);
        if (r == 0) return;
        if (r != 1) ++lost;
        ++served;
        pong.Set();
      }
    });
    for (int i = 0; i < rounds && lost.load() == 0; ++i) {
      ping.Set();
      if (pong.Wait(10000) != PL_WAIT_OBJECT_0) ++lost;
    }
    stop.Set();
  }
  EXPECT_EQ(0, lost.load());
  EXPECT_EQ(rounds, served.load());
}

// A Set inside a critical section wakes its waiter when the section is left,
// and before the setter parks in it: a setter that waits for the answer
// without leaving must still get it.
TEST(Event, ASetInsideACriticalSectionReachesItsWaiterBeforeTheSetterParks) {
  PlCritSect outer, inner;
  PlEvent ask(false, false), answer(false, false);
  std::atomic<int> answered{0};
  Runner r([&] {
    for (int i = 0; i < 3; ++i)
      if (ask.Wait(5000) == PL_WAIT_OBJECT_0) {
        ++answered;
        answer.Set();
      }
  });
  PlCritLock hold(&outer);
  {
    PlCritLock in(&inner);
    ask.Set();
    EXPECT_EQ(PL_WAIT_OBJECT_0, answer.Wait(5000)) << "waiting inside the section";
  }
  ask.Set();
  EXPECT_EQ(PL_WAIT_OBJECT_0, answer.Wait(5000)) << "the inner section left";
  ask.Set();
  // Still inside the outer section: a sleep is a park too.
  for (int i = 0; i < 2000 && answered.load() < 3; ++i) PlSleep(1);
  EXPECT_EQ(3, answered.load());
}

TEST_F(ManualClockTest, TimedWaitEndsWhenTheClockPassesItsDeadline) {
  PlEvent ev(false, false);
  std::atomic<uint32_t> result{12345};
  Runner r([&] { result = ev.Wait(5000); });
  PlSleep(30);
  PlClockAdvance(4 * PL_TICKS_PER_SECOND);
  PlSleep(30);
  EXPECT_EQ(12345u, result.load()) << "woke before its deadline";
  PlClockAdvance(1 * PL_TICKS_PER_SECOND);
  for (int i = 0; i < 500 && result.load() == 12345u; ++i) PlSleep(2);
  EXPECT_EQ(PL_WAIT_TIMEOUT, result.load());
}

TEST_F(ManualClockTest, EventWakesAManualWaitAndBackwardMovesAreHarmless) {
  PlEvent ev(false, false);
  std::atomic<uint32_t> result{12345};
  Runner r([&] { result = ev.Wait(5000); });
  PlSleep(20);
  PlClockAdvance(-100 * static_cast<int64_t>(PL_TICKS_PER_SECOND));
  PlSleep(20);
  EXPECT_EQ(12345u, result.load());
  ev.Set();
  for (int i = 0; i < 500 && result.load() == 12345u; ++i) PlSleep(2);
  EXPECT_EQ(PL_WAIT_OBJECT_0, result.load());
}

TEST_F(ManualClockTest, WaitAnyEndsAtTheManualDeadlineOrAtASetWithEitherReset) {
  PlEvent automatic(false, false), manual(true, false);
  PlEvent* both[2] = {&automatic, &manual};
  std::atomic<uint32_t> result{12345};
  {
    Runner r([&] { result = PlWaitAny(both, 2, 3000); });
    PlSleep(100);  // the deadline is taken when the wait starts
    PlClockAdvance(2999 * PL_TICKS_PER_MS);
    PlSleep(20);
    EXPECT_EQ(12345u, result.load()) << "woke before its deadline";
    PlClockAdvance(1 * PL_TICKS_PER_MS);
    for (int i = 0; i < 500 && result.load() == 12345u; ++i) PlSleep(2);
    EXPECT_EQ(PL_WAIT_TIMEOUT, result.load());
    while (result.load() == 12345u) {  // a thread that started late must still end
      PlClockAdvance(PL_TICKS_PER_SECOND);
      PlSleep(2);
    }
  }
  {
    Runner r([&] { result = PlWaitAny(both, 2, 3000); });
    PlSleep(20);
    manual.Set();
  }
  EXPECT_EQ(1u, result.load());
  EXPECT_EQ(1u, PlWaitAny(both, 2, 0)) << "a manual event stays set";
  manual.Reset();
  {
    Runner r([&] { result = PlWaitAny(both, 2, PL_INFINITE); });
    PlSleep(20);
    automatic.Set();
  }
  EXPECT_EQ(0u, result.load());
  EXPECT_EQ(PL_WAIT_TIMEOUT, PlWaitAny(both, 2, 0)) << "an automatic event is taken by the wait it released";
}

// A wait parked on the real clock is reached when the clock switches to
// manual: from then on its time-out follows the manual time, not real time.
TEST(Clock, ASwitchToTheManualClockReachesWaitsParkedOnTheRealOne) {
  PlEvent one(false, false), a(false, false), b(false, false);
  PlEvent* two[2] = {&a, &b};
  std::atomic<uint32_t> single{12345}, any{12345};
  {
    Runner r1([&] { single = one.Wait(60000); });
    Runner r2([&] { any = PlWaitAny(two, 2, 60000); });
    PlSleep(20);
    PlClockUseManual(PL_UNIX_EPOCH_TICKS + 5000 * PL_TICKS_PER_SECOND);
    PlSleep(20);
    PlClockAdvance(60 * PL_TICKS_PER_SECOND);
    for (int i = 0; i < 500 && (single.load() == 12345u || any.load() == 12345u); ++i) PlSleep(2);
    EXPECT_EQ(PL_WAIT_TIMEOUT, single.load());
    EXPECT_EQ(PL_WAIT_TIMEOUT, any.load());
    while (single.load() == 12345u || any.load() == 12345u) {
      PlClockAdvance(60 * PL_TICKS_PER_SECOND);
      PlSleep(2);
    }
  }
  PlClockUseReal();
}

TEST_F(ManualClockTest, ClockReadsFollowTheManualTime) {
  uint64_t t0 = PlFileTimeUtc();
  EXPECT_EQ(PL_UNIX_EPOCH_TICKS + 1000 * PL_TICKS_PER_SECOND, t0);
  EXPECT_EQ(t0, PlFileTimeUtc());
  int64_t p0 = PlPerfCounter();
  PlClockAdvance(250 * PL_TICKS_PER_MS);
  EXPECT_EQ(t0 + 250 * PL_TICKS_PER_MS, PlFileTimeUtc());
  EXPECT_EQ(PlPerfFrequency() / 4, PlPerfCounter() - p0);
  PlClockSet(t0);
  EXPECT_EQ(t0, PlFileTimeUtc());
}

TEST(Clock, CoarseClockStaysWithinMillisecondsOfThePreciseOne) {
  uint64_t precise = PlFileTimeUtc();
  uint64_t coarse = PlFileTimeUtcCoarse();
  EXPECT_LT(coarse > precise ? coarse - precise : precise - coarse, 50 * PL_TICKS_PER_MS);
  PlClockUseManual(PL_UNIX_EPOCH_TICKS + 77);
  EXPECT_EQ(PL_UNIX_EPOCH_TICKS + 77, PlFileTimeUtcCoarse());
  PlClockUseReal();
}

TEST(Clock, RealClockRunsForward) {
  ASSERT_FALSE(PlClockIsManual());
  uint64_t t0 = PlFileTimeUtc();
  int64_t p0 = PlPerfCounter();
  PlSleep(20);
  EXPECT_GE(PlFileTimeUtc() - t0, 15 * PL_TICKS_PER_MS);
  int64_t elapsed = PlPerfCounter() - p0;
  EXPECT_GT(elapsed, PlPerfFrequency() / 100);  // at least 10 ms
  EXPECT_LT(elapsed, PlPerfFrequency() * 5);
  EXPECT_GT(t0, Ticks(2020, 1, 1, 0, 0, 0));
}

TEST(Clock, CalendarSplitOfKnownDates) {
  PlCalendar c;
  ASSERT_TRUE(PlFileTimeToCalendar(0, &c));
  EXPECT_EQ(1601, c.i_year);
  EXPECT_EQ(1, c.i_day_of_week);  // a Monday
  ASSERT_TRUE(PlFileTimeToCalendar(PL_UNIX_EPOCH_TICKS + 1234 * PL_TICKS_PER_MS, &c));
  EXPECT_EQ(1970, c.i_year);
  EXPECT_EQ(1, c.i_month);
  EXPECT_EQ(1, c.i_day);
  EXPECT_EQ(4, c.i_day_of_week);  // a Thursday
  EXPECT_EQ(1, c.i_second);
  EXPECT_EQ(234, c.i_millisecond);
  uint64_t leap = Ticks(2024, 2, 29, 23, 59, 59);
  ASSERT_TRUE(PlFileTimeToCalendar(leap + 999 * PL_TICKS_PER_MS, &c));
  EXPECT_EQ(2024, c.i_year);
  EXPECT_EQ(2, c.i_month);
  EXPECT_EQ(29, c.i_day);
  EXPECT_EQ(23, c.i_hour);
  EXPECT_EQ(59, c.i_minute);
  EXPECT_EQ(999, c.i_millisecond);
  EXPECT_EQ(Ticks(2024, 3, 1, 0, 0, 0), leap + PL_TICKS_PER_SECOND);
}

TEST(Clock, CalendarRefusesImpossibleDates) {
  PlCalendar feb29 = {2023, 2, 0, 29, 0, 0, 0, 0};
  PlCalendar month13 = {2023, 13, 0, 1, 0, 0, 0, 0};
  PlCalendar hour24 = {2023, 1, 0, 1, 24, 0, 0, 0};
  uint64_t t = 0;
  EXPECT_FALSE(PlCalendarToFileTime(&feb29, &t));
  EXPECT_FALSE(PlCalendarToFileTime(&month13, &t));
  EXPECT_FALSE(PlCalendarToFileTime(&hour24, &t));
  EXPECT_FALSE(PlFileTimeToCalendar(~0ULL, nullptr));
}

TEST(Clock, LocalTimeIsRightOnBothSidesOfADaylightSavingChange) {
  const char* old_tz = getenv("TZ");
  std::string saved = old_tz ? old_tz : "";
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  PlClockTimeZoneChanged();
  const uint64_t hour = 3600 * PL_TICKS_PER_SECOND;
  // Summer time starts on 2026-03-29 at 01:00 UTC.
  uint64_t before = Ticks(2026, 3, 29, 0, 59, 59);
  uint64_t after = Ticks(2026, 3, 29, 1, 0, 0);
  for (int pass = 0; pass < 2; ++pass) {  // the second pass reads the cache
    EXPECT_EQ(before + hour, PlFileTimeToLocal(before));
    EXPECT_EQ(after + 2 * hour, PlFileTimeToLocal(after));
  }
  EXPECT_EQ(before, PlLocalToFileTime(before + hour));
  EXPECT_EQ(after, PlLocalToFileTime(after + 2 * hour));
  // And back to winter time on 2026-10-25 at 01:00 UTC.
  uint64_t autumn = Ticks(2026, 10, 25, 1, 0, 0);
  EXPECT_EQ(autumn - 1 + 2 * hour, PlFileTimeToLocal(autumn - 1));
  EXPECT_EQ(autumn + hour, PlFileTimeToLocal(autumn));
  // A change at a second that is no quarter hour (02:00:11 local, 01:00:11
  // UTC): the quarter that holds it is right on both sides of it.
  setenv("TZ", "XST-1XDT,M3.5.0/2:00:11,M10.5.0/3", 1);
  PlClockTimeZoneChanged();
  PlClockUseManual(after);
  EXPECT_EQ(after + hour, PlFileTimeToLocal(PlFileTimeUtc()));
  PlClockAdvance(10 * PL_TICKS_PER_SECOND);
  EXPECT_EQ(after + 10 * PL_TICKS_PER_SECOND + hour, PlFileTimeToLocal(PlFileTimeUtc()));
  PlClockAdvance(2 * PL_TICKS_PER_SECOND);
  EXPECT_EQ(after + 12 * PL_TICKS_PER_SECOND + 2 * hour, PlFileTimeToLocal(PlFileTimeUtc()));
  PlClockAdvance(-2 * static_cast<int64_t>(PL_TICKS_PER_SECOND));
  EXPECT_EQ(after + 10 * PL_TICKS_PER_SECOND + hour, PlFileTimeToLocal(PlFileTimeUtc()));
  PlClockUseReal();
  if (old_tz) setenv("TZ", saved.c_str(), 1); else unsetenv("TZ");
  PlClockTimeZoneChanged();
}

TEST(Thread, RunsOnTheAskedStackAndReportsItsEnd) {
  PlEvent go(true, false);
  std::atomic<uint32_t> inner_id{0};
  struct Ctx { PlEvent* go; std::atomic<uint32_t>* id; } ctx{&go, &inner_id};
  auto fn = [](void* p) -> uint32_t {
    Ctx* c = static_cast<Ctx*>(p);
    volatile char big[100000];  // half of the 200,000 bytes asked for
    memset(const_cast<char*>(big), 1, sizeof(big));
    c->id->store(PlThreadCurrentId());
    c->go->Wait(PL_INFINITE);
    return 7u + big[100];
  };
  PlThread* t = PlThread::Create(fn, &ctx, 200000, false);
  ASSERT_NE(nullptr, t);
  EXPECT_EQ(PL_WAIT_TIMEOUT, t->Join(20));
  EXPECT_EQ(PL_STILL_ACTIVE, t->ExitCode());
  EXPECT_EQ(0, t->Resume());
  go.Set();
  EXPECT_EQ(PL_WAIT_OBJECT_0, t->Join(10000));
  EXPECT_EQ(8u, t->ExitCode());
  EXPECT_EQ(inner_id.load(), t->Id());
  EXPECT_NE(PlThreadCurrentId(), t->Id());
  PlThread::Close(t);
}

TEST(Thread, SuspendedThreadWaitsForResume) {
  std::atomic<bool> ran{false};
  auto fn = [](void* p) -> uint32_t {
    static_cast<std::atomic<bool>*>(p)->store(true);
    return 0;
  };
  PlThread* t = PlThread::Create(fn, &ran, 0, true);
  ASSERT_NE(nullptr, t);
  EXPECT_NE(0u, t->Id());  // known before it runs
  PlSleep(20);
  EXPECT_FALSE(ran.load());
  EXPECT_EQ(1, t->Resume());
  EXPECT_EQ(PL_WAIT_OBJECT_0, t->Join(10000));
  EXPECT_TRUE(ran.load());
  PlThread::Close(t);
}

TEST(Thread, ClosingARunningThreadLetsItFinish) {
  static PlEvent go(true, false);
  static std::atomic<bool> done{false};
  auto fn = [](void*) -> uint32_t {
    go.Wait(PL_INFINITE);
    done = true;
    return 0;
  };
  PlThread* t = PlThread::Create(fn, nullptr, 0, false);
  PlThread::Close(t);
  go.Set();
  for (int i = 0; i < 1000 && !done; ++i) PlSleep(2);
  EXPECT_TRUE(done.load());
}

TEST(Os, FilesDirectoriesAndPaths) {
  char exe[1024];
  ASSERT_GT(PlExePath(exe, sizeof(exe)), 0u);
  EXPECT_NE(nullptr, strstr(exe, "test_platform"));
  char tiny[4];
  EXPECT_EQ(0u, PlExePath(tiny, sizeof(tiny)));

  std::string dir = std::string(WRITER_BIN_DIR) + "/pl_os_test";
  EXPECT_EQ(0, PlMkdir(dir.c_str()));
  EXPECT_EQ(0, PlMkdir(dir.c_str()));  // existing: no error
  std::string file = dir + "/f.txt";
  int fd = PlFileOpen(file.c_str(), PL_FILE_TRUNC);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(3, PlFileWrite(fd, "abc", 3));
  PlFileClose(fd);
  fd = PlFileOpenAppendRaw(file.c_str());
  ASSERT_GE(fd, 0);
  EXPECT_EQ(2, PlFileWrite(fd, "de", 2));
  PlFileClose(fd);
  char buf[16] = {0};
  fd = PlFileOpen(file.c_str(), PL_FILE_READ);
  EXPECT_EQ(5, PlFileRead(fd, buf, sizeof(buf)));
  PlFileClose(fd);
  EXPECT_STREQ("abcde", buf);
  EXPECT_EQ(-1, PlFileOpenAppendRaw((dir + "/missing").c_str()));  // never creates
  remove(file.c_str());
  remove(dir.c_str());
}

TEST(Os, LibrariesAlignedMemoryAndVersion) {
  EXPECT_EQ(nullptr, PlLibOpen("/nonexistent/libnothing.so"));
  EXPECT_STRNE("", PlLibError());
  void* lib = PlLibOpen(WRITER_BIN_DIR "/libcore.so");
  ASSERT_NE(nullptr, lib);
  EXPECT_NE(nullptr, PlLibSym(lib, "profile_open"));
  EXPECT_EQ(nullptr, PlLibSym(lib, "no_such_function"));
  PlLibClose(lib);

  void* p = PlAlignedAlloc(100, 32);
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(p) % 32);
  PlAlignedFree(p);

  // Pages: bytes past the size a block was last given read zero after it
  // grows again, even those written into its last page meanwhile.
  char* pages = static_cast<char*>(PlPagesAlloc(10));
  ASSERT_NE(nullptr, pages);
  memset(pages, 'a', 100);
  pages = static_cast<char*>(PlPagesResize(pages, 10, 200000));
  ASSERT_NE(nullptr, pages);
  EXPECT_EQ(std::string(10, 'a') + std::string(5, '\0'), std::string(pages, 15));
  pages[199999] = 'z';
  pages = static_cast<char*>(PlPagesResize(pages, 200000, 10));
  pages = static_cast<char*>(PlPagesResize(pages, 10, 200000));
  EXPECT_EQ(0, pages[199999]);
  EXPECT_EQ('a', pages[9]);
  EXPECT_EQ(nullptr, PlPagesAlloc(0));
  PlPagesFree(pages, 200000);

  uint32_t id = 0;
  EXPECT_TRUE(PlOsVersion(true, &id));
  EXPECT_EQ(2u, id);
}
