// The exported compatibility layer: fenced memory and its exit report, the
// interlocked family, the application directory, SAFE_STRCAT, the
// section-and-key file and the critical sections with a time-out; and that
// libwriter.so exports exactly these names besides its own.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "compat/compat.h"
#include "compat/compat_memory.h"
#include "compat/compat_profile_file.h"
#include "compat/compat_text.h"

namespace {

TCompatCounters Counters() {
  TCompatCounters c;
  CompatCountersGet(&c);
  return c;
}

std::string TempDir() {
  char s_dir[] = "/tmp/test_compat_XXXXXX";
  return mkdtemp(s_dir) != nullptr ? s_dir : "";
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void WriteFile(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

// A default value as callers make one: a buffer of the layer.
ProfileString Default(const char* s_text) {
  ProfileString r = {static_cast<int32_t>(strlen(s_text)), nullptr, 0};
  SAFE_STRCAT(&r.s_text, s_text, nullptr, 0);
  return r;
}

std::string Get(const std::string& file, const char* section, const char* key, const char* def = "dflt") {
  ProfileString r = Default(def);
  mGetPrivateProfileString(file.c_str(), section, key, &r);
  std::string value = r.s_text != nullptr ? r.s_text : "";
  CompatFree(r.s_text);
  return value;
}

}  // namespace

TEST(CompatMemory, BlockCarriesFencesAndCountersFollowIt) {
  TCompatCounters before = Counters();
  char* p = static_cast<char*>(CompatAlloc(5, 2));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(p - 32) % 32, 0u);
  const TCompatBlockHead* head = reinterpret_cast<const TCompatBlockHead*>(p - 32);
  EXPECT_EQ(head->ui64_fence_head, UI64_COMPAT_FENCE_HEAD);
  EXPECT_EQ(head->ui64_fence_info, UI64_COMPAT_FENCE_INFO);
  EXPECT_EQ(head->i_bytes, 10);
  EXPECT_EQ(head->i_elements, 5);
  EXPECT_EQ(head->i_element_size, 2);
  uint64_t tail;
  memcpy(&tail, p + 10, 8);
  EXPECT_EQ(tail, UI64_COMPAT_FENCE_TAIL);
  EXPECT_EQ(std::string(p, 10), std::string(10, '\0'));
  EXPECT_EQ(Counters().i_bytes - before.i_bytes, 50);
  EXPECT_EQ(CompatFree(p), nullptr);
  TCompatCounters after = Counters();
  EXPECT_EQ(memcmp(&before, &after, sizeof(before)), 0);
}

TEST(CompatMemory, SizesBelowOneOrBeyond32BitsGiveNull) {
  TCompatCounters before = Counters();
  EXPECT_EQ(CompatAlloc(0, 1), nullptr);
  EXPECT_EQ(CompatAlloc(-3, 1), nullptr);
  EXPECT_EQ(CompatAlloc(4, 0), nullptr);
  EXPECT_EQ(CompatAlloc(0x40000000, 2), nullptr);  // wide text of 2 GiB
  EXPECT_EQ(CompatAlloc(INT32_MAX - 20, 1), nullptr);
  TCompatCounters after = Counters();
  EXPECT_EQ(memcmp(&before, &after, sizeof(before)), 0);
}

TEST(CompatMemory, DamagedFencesCountAsErrorsAtRelease) {
  TCompatCounters before = Counters();
  char* p = static_cast<char*>(CompatAlloc(8, 1));
  p[8] = 'x';  // one byte past the data, into the tail fence
  CompatFree(p);
  EXPECT_EQ(Counters().i_errors - before.i_errors, 1);
  p = static_cast<char*>(CompatAlloc(8, 1));
  memset(p - 32, 0, 8);
  memset(p - 8, 0, 8);
  CompatFree(p);
  EXPECT_EQ(Counters().i_errors - before.i_errors, 3);
  EXPECT_EQ(Counters().i_bytes, before.i_bytes);
}

TEST(CompatMemory, ResizeGrowsKeepingBytesAndNeverShrinks) {
  void* p = nullptr;
  ASSERT_NE(CompatResize(&p, 4, 1), nullptr);
  memcpy(p, "abc", 4);
  void* first = p;
  EXPECT_EQ(CompatResize(&p, 2, 1), first);
  ASSERT_NE(CompatResize(&p, 100, 1), nullptr);
  EXPECT_STREQ(static_cast<char*>(p), "abc");
  EXPECT_EQ(CompatSize(p), 100);
  // Room is counted in bytes: a wide buffer of 3 units already holds 5 bytes.
  void* w = CompatAlloc(3, 2);
  EXPECT_EQ(CompatResize(&w, 5, 1), w);
  EXPECT_EQ(CompatResize(&w, 0, 1), nullptr);
  EXPECT_EQ(w, nullptr);
  CompatFree(p);
}

TEST(CompatMemory, LeakReportLines) {
  char s[512];
  TCompatCounters c = {};
  EXPECT_EQ(CompatLeakReportFormat(&c, s, sizeof(s)), 0u);
  c.i_errors = 1;
  CompatLeakReportFormat(&c, s, sizeof(s));
  EXPECT_STREQ(s, "Tessaline::Detect Memory Leak !!! (size=0, count=0, err=1)\r\n");
  c = {};
  c.i_handles_file = 2;  // narrower lines only under a total
  EXPECT_EQ(CompatLeakReportFormat(&c, s, sizeof(s)), 0u);
  c.i_handles_total = 3;
  c.i_handles_event = 1;
  CompatLeakReportFormat(&c, s, sizeof(s));
  EXPECT_STREQ(s,
               "Tessaline::Detect Handle Leak !!! (count=3)\r\n"
               "Tessaline::Event Handle Leak !!! (count=1)\r\n"
               "Tessaline::File Handle Leak !!! (count=2)\r\n");
  EXPECT_EQ(CompatLeakReportFormat(&c, s, 10), 9u);  // truncated, terminated
}

TEST(CompatInterlocked, OperationsAndTheirResults) {
  int64_t v = 5;
  EXPECT_EQ(mInterlockedGet64(nullptr), 0);
  EXPECT_EQ(mInterlockedGet64(&v), 5);
  EXPECT_EQ(mInterlockedExchange64(&v, 9), 5);
  EXPECT_EQ(mInterlockedCompareExchange64(&v, 1, 8), 9);  // comparand wrong: unchanged
  EXPECT_EQ(v, 9);
  EXPECT_GE(IsCMPXCHG8BSupport, 0);
  EXPECT_EQ(mInterlockedCompareExchange64(&v, 1, 9), 9);
  EXPECT_EQ(mInterlockedIncrement64(&v), 2);
  EXPECT_EQ(mInterlockedDecrement64(&v), 1);
  EXPECT_EQ(mInterlockedExchangeAdd64(&v, 0x100000000LL), 1);
  EXPECT_EQ(mInterlockedOr64(&v, 6), 0x100000001LL);
  EXPECT_EQ(mInterlockedAnd64(&v, 0xF), 0x100000007LL);
  EXPECT_EQ(mInterlockedXor64(&v, 5), 7);
  EXPECT_EQ(mInterlockedIncrement64(nullptr), 0);
}

namespace {
std::atomic<int> g_calls{0};
// Changes its copy of the value on the first call only.
int64_t AddChangingCopy(int64_t* value, int64_t* arg) {
  int64_t next = *value + *arg;
  if (g_calls++ == 0) *value = -1;
  return next;
}
}  // namespace

TEST(CompatInterlocked, UnivRepeatsWhileTheFunctionsCopyDiffersFromMemory) {
  int64_t v = 10;
  g_calls = 0;
  // The first exchange succeeds but the copy no longer matches, so the
  // operation runs again on the stored value.
  EXPECT_EQ(mInterlockedUniv64(&v, 3, AddChangingCopy), 13);
  EXPECT_EQ(g_calls.load(), 2);
  EXPECT_EQ(v, 16);
}

TEST(CompatAppDir, NarrowWideAndUtf8FormsOfTheExecutablesFolder) {
  char exe[4096];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
  ASSERT_GT(n, 0);
  std::string dir(exe, static_cast<size_t>(n));
  dir = dir.substr(0, dir.rfind('/') + 1);
  TCompatCounters before = Counters();
  char* s = nullptr;
  EXPECT_EQ(GetAppDirPath(&s), static_cast<int32_t>(dir.size()) + 1);
  EXPECT_EQ(std::string(s), dir);
  char* u = nullptr;
  EXPECT_EQ(GetAppDirPathUTF8(&u), static_cast<int32_t>(dir.size()));
  EXPECT_EQ(std::string(u), dir);
  TCompatWChar* w = nullptr;
  EXPECT_EQ(GetAppDirPathW(&w), static_cast<int32_t>(dir.size()) + 1);
  EXPECT_EQ(CompatWideLen(w, 100000), static_cast<int32_t>(dir.size()));
  EXPECT_EQ(w[0], '/');
  GetAppDirPathFree(&s);
  GetAppDirPathFree(&u);
  GetAppDirPathFreeW(&w);
  EXPECT_EQ(w, nullptr);
  EXPECT_EQ(Counters().i_blocks, before.i_blocks);
  EXPECT_EQ(GetAppDirPath(nullptr), 0);
}

TEST(CompatText, WideConversionRoundTripsAndReplacesBadBytes) {
  TCompatWChar* w = nullptr;
  const char text[] = "a\xC3\xA9\xF0\x9F\x98\x80\xFFz";
  EXPECT_EQ(CompatUtf8ToWide(text, static_cast<int32_t>(strlen(text)), &w), 6);
  EXPECT_EQ(w[1], 0xE9);
  EXPECT_EQ(w[2], 0xD83D);
  EXPECT_EQ(w[4], 0xFFFD);
  char* back = nullptr;
  EXPECT_EQ(CompatWideToUtf8(w, 100, &back), 11);
  EXPECT_STREQ(back, "a\xC3\xA9\xF0\x9F\x98\x80\xEF\xBF\xBDz");
  w[0] = 0xDC00;  // a lone surrogate
  CompatWideToUtf8(w, 1, &back);
  EXPECT_STREQ(back, "\xEF\xBF\xBD");
  CompatFree(w);
  CompatFree(back);
}

TEST(CompatStrcat, AppendsWithinTheBufferItGrows) {
  char* s = nullptr;
  EXPECT_EQ(SAFE_STRCAT(&s, "hello", nullptr, 0), 5);
  EXPECT_EQ(SAFE_STRCAT(&s, " world, a longer tail", nullptr, 0), 26);
  EXPECT_STREQ(s, "hello world, a longer tail");
  EXPECT_GE(CompatSize(s), 27);
  EXPECT_EQ(SAFE_STRCAT(&s, s, nullptr, 0), 52);  // the buffer onto itself
  EXPECT_EQ(std::string(s), "hello world, a longer tailhello world, a longer tail");
  EXPECT_EQ(SAFE_STRCAT(&s, nullptr, nullptr, 0), 52);
  CompatFree(s);
  EXPECT_EQ(SAFE_STRCAT(nullptr, "x", nullptr, 0), 0);
}

TEST(CompatStrcat, TextRunningIntoAnUnreadablePageStopsThere) {
  long page = sysconf(_SC_PAGESIZE);
  char* map = static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(map, MAP_FAILED);
  ASSERT_EQ(mprotect(map + page, page, PROT_NONE), 0);
  memcpy(map + page - 3, "xyz", 3);  // no terminator before the guard page
  EXPECT_EQ(CompatSafeLen(map + page - 3, INT32_MAX), 3);
  EXPECT_EQ(CompatSafeLen("ab\xC3\xA9z", INT32_MAX), 2);  // stops at a top bit too
  munmap(map, 2 * page);
}

namespace {
int32_t g_asked = 0;
void* GrowWithRealloc(void* p, int32_t size, int32_t arg) {
  g_asked = size;
  return arg == 0 ? nullptr : realloc(p, static_cast<size_t>(size));
}
}  // namespace

TEST(CompatStrcat, CallersAllocatorIsAskedForRoomForBothTexts) {
  char* s = static_cast<char*>(malloc(4));
  memcpy(s, "abc", 4);
  EXPECT_EQ(SAFE_STRCAT(&s, "defg", GrowWithRealloc, 1), 7);
  EXPECT_EQ(g_asked, 8);
  EXPECT_STREQ(s, "abcdefg");
  free(s);
  s = static_cast<char*>(malloc(4));
  char* keep = s;
  EXPECT_EQ(SAFE_STRCAT(&s, "x", GrowWithRealloc, 0), 0);  // allocator refuses
  EXPECT_EQ(s, nullptr);
  free(keep);
}

class CompatProfile : public ::testing::Test {
 protected:
  void SetUp() override {
    m_dir = TempDir();
    ASSERT_FALSE(m_dir.empty());
    m_file = m_dir + "/set.ini";
  }
  void TearDown() override { (void)system(("rm -rf " + m_dir).c_str()); }
  std::string m_dir;
  std::string m_file;
};

TEST_F(CompatProfile, ReadingFindsEntriesByTheLineRules) {
  WriteFile(m_file,
            "top=1\r\n[cam]\n  name=front door \r\r\n\tkey=tab\nkey=\xC3\xA9t\xC3\xA9\n;k=comment\nkeylong=2\n"
            "[Cam]\nk=other\n[empty]");
  EXPECT_EQ(Get(m_file, nullptr, "top"), "1");                // before the first header
  EXPECT_EQ(Get(m_file, "cam", "name"), "front door ");       // blanks skipped in front only
  EXPECT_EQ(Get(m_file, "cam", "key"), "\xC3\xA9t\xC3\xA9");  // tab line is content
  EXPECT_EQ(Get(m_file, "Cam", "k"), "other");
  ProfileString r = Default("x");
  EXPECT_EQ(mGetPrivateProfileString(m_file.c_str(), "cam", "name", &r), 11);
  EXPECT_EQ(r.i_len, 11);
  CompatFree(r.s_text);
  // Nothing above was missing, so nothing was written.
  EXPECT_NE(ReadFile(m_file).find("[empty]"), std::string::npos);
  EXPECT_EQ(ReadFile(m_file).find("dflt"), std::string::npos);
}

TEST_F(CompatProfile, MissingEntriesAreWrittenWithTheDefault) {
  ProfileString r = Default("42");
  EXPECT_EQ(mGetPrivateProfileString(m_file.c_str(), "main", "port", &r), 2);
  EXPECT_STREQ(r.s_text, "42");
  CompatFree(r.s_text);
  EXPECT_EQ(ReadFile(m_file), "[main]\r\nport=42\r\n");
  // "top" is only found with a null section; a key that begins a longer one
  // is not an entry.
  WriteFile(m_file, "top=1\n[s]\nkeylong=2\n");
  EXPECT_EQ(Get(m_file, "s", "top"), "dflt");
  EXPECT_EQ(Get(m_file, "s", "key"), "dflt");
  EXPECT_EQ(ReadFile(m_file), "top=1\n[s]\nkeylong=2\ntop=dflt\r\nkey=dflt\r\n");
}

TEST_F(CompatProfile, WritingReplacesInsertsAndKeepsCommentsWithTheirSection) {
  WriteFile(m_file, "[a]\nx=1\n; about b\n\n[b]\ny=2");
  EXPECT_EQ(mWritePrivateProfileString(m_file.c_str(), "a", "z", "new"), 1);
  EXPECT_EQ(ReadFile(m_file), "[a]\nx=1\nz=new\r\n; about b\n\n[b]\ny=2");
  EXPECT_EQ(mWritePrivateProfileString(m_file.c_str(), "a", "x", "longer"), 1);
  EXPECT_EQ(mWritePrivateProfileString(m_file.c_str(), "b", "w", "3"), 1);  // file ends without a break
  EXPECT_EQ(mWritePrivateProfileString(m_file.c_str(), "c", "v", "4"), 1);
  EXPECT_EQ(ReadFile(m_file), "[a]\nx=longer\nz=new\r\n; about b\n\n[b]\ny=2\r\nw=3\r\n[c]\r\nv=4\r\n");
  // The same value again writes nothing.
  EXPECT_EQ(mWritePrivateProfileString(m_file.c_str(), "a", "x", "longer"), 0);
  // A null value empties the entry but keeps the line.
  EXPECT_EQ(mWritePrivateProfileString(m_file.c_str(), "b", "y", nullptr), 1);
  EXPECT_EQ(ReadFile(m_file), "[a]\nx=longer\nz=new\r\n; about b\n\n[b]\ny=\r\nw=3\r\n[c]\r\nv=4\r\n");
  // Blanks behind the last line break are dropped, blanks in a last line kept.
  WriteFile(m_file, "[a]\nx=1\n   ");
  EXPECT_EQ(mWritePrivateProfileString(m_file.c_str(), "a", "x", "2"), 1);
  EXPECT_EQ(ReadFile(m_file), "[a]\nx=2\n");
  WriteFile(m_file, "[a]\nx=1   ");
  EXPECT_EQ(mWritePrivateProfileString(m_file.c_str(), "a", "x", "2"), 1);
  EXPECT_EQ(ReadFile(m_file), "[a]\nx=2");
}

TEST_F(CompatProfile, BadArgumentsAndUnusableFilesGiveZero) {
  ProfileString r = Default("d");
  EXPECT_EQ(mGetPrivateProfileString(nullptr, "s", "k", &r), 0);
  EXPECT_EQ(mGetPrivateProfileString(m_file.c_str(), "s", nullptr, &r), 0);
  EXPECT_EQ(mGetPrivateProfileString(m_file.c_str(), "s", "k", nullptr), 0);
  EXPECT_EQ(mGetPrivateProfileString(m_dir.c_str(), "s", "k", &r), 0);  // a folder
  EXPECT_EQ(mGetPrivateProfileString((m_dir + "/no/such").c_str(), "s", "k", &r), 0);
  EXPECT_EQ(mWritePrivateProfileString(nullptr, "s", "k", "v"), 0);
  EXPECT_EQ(mWritePrivateProfileString(m_file.c_str(), "s", "", "v"), 0);
  // Line breaks or a key that reads as a comment or header would break the file.
  EXPECT_EQ(mWritePrivateProfileString(m_file.c_str(), "s", "k\r\n[x]", "v"), 0);
  EXPECT_EQ(mWritePrivateProfileString(m_file.c_str(), "s\n", "k", "v"), 0);
  EXPECT_EQ(mWritePrivateProfileString(m_file.c_str(), "s", "k", "v\nw=1"), 0);
  EXPECT_EQ(mWritePrivateProfileString(m_file.c_str(), "s", ";k", "v"), 0);
  EXPECT_EQ(ReadFile(m_file), "");
  EXPECT_EQ(mWritePrivateProfileStringW(nullptr, "s", "k", "v"), 0);
  CompatFree(r.s_text);
}

TEST_F(CompatProfile, LongLinesAndOversizeFilesStayWithinBounds) {
  std::string big(2 * 1024 * 1024, 'v');
  WriteFile(m_file, "[s]\nk=" + big + "\n");
  EXPECT_EQ(Get(m_file, "s", "k").size(), big.size());
  std::string huge(I_PROFILE_FILE_MAX + 1024 * 1024, ';');
  WriteFile(m_file, huge);
  ProfileString r = Default("d");
  EXPECT_EQ(mGetPrivateProfileString(m_file.c_str(), "s", "k", &r), 0);
  EXPECT_EQ(mWritePrivateProfileString(m_file.c_str(), "s", "k", "v"), 0);
  EXPECT_EQ(ReadFile(m_file).size(), huge.size());
  CompatFree(r.s_text);
  EXPECT_EQ(mWritePrivateProfileString((m_dir + "/n").c_str(), "s", "k", big.c_str()), 0);  // value over 1 MiB
}

TEST_F(CompatProfile, WideFileNames) {
  TCompatWChar* w = nullptr;
  std::string name = m_dir + "/w\xC3\xA9.ini";
  CompatUtf8ToWide(name.c_str(), static_cast<int32_t>(name.size()), &w);
  EXPECT_EQ(mWritePrivateProfileStringW(w, "s", "k", "v"), 1);
  ProfileString r = Default("d");
  EXPECT_EQ(mGetPrivateProfileStringW(w, "s", "k", &r), 1);
  EXPECT_STREQ(r.s_text, "v");
  EXPECT_EQ(ReadFile(name), "[s]\r\nk=v\r\n");
  CompatFree(r.s_text);
  CompatFree(w);
}

TEST(CompatCritSect, EnterWaitsOrTimesOutAndIsNotReentrant) {
  CriticalSectionTimeout cs;
  InitializeCriticalSectionTimeout(&cs);
  ASSERT_NE(cs.h_event, nullptr);
  EXPECT_EQ(EnterCriticalSectionTimeout(&cs, 0), 1);
  EXPECT_EQ(EnterCriticalSectionTimeout(&cs, 20), 0);  // same thread: no re-entry
  std::atomic<int> got{-1};
  std::thread t([&] { got = EnterCriticalSectionTimeout(&cs, 10000); });
  LeaveCriticalSectionTimeout(&cs);
  t.join();
  EXPECT_EQ(got.load(), 1);
  LeaveCriticalSectionTimeout(&cs);
  DeleteCriticalSectionTimeout(&cs);
  EXPECT_EQ(cs.h_event, nullptr);
  EXPECT_EQ(EnterCriticalSectionTimeout(&cs, 0), 0);  // deleted: tolerated
  EXPECT_EQ(EnterCriticalSectionTimeout(nullptr, 0), 0);
}

TEST(CompatExports, LibraryExportsTheLayerAndNothingOfItsInside) {
  void* lib = dlopen(WRITER_BIN_DIR "/libwriter.so", RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(lib, nullptr) << dlerror();
  for (const char* name : {"IsCMPXCHG8BSupport",
                           "mInterlockedUniv64",
                           "mInterlockedGet64",
                           "mInterlockedExchange64",
                           "mInterlockedCompareExchange64",
                           "mInterlockedIncrement64",
                           "mInterlockedDecrement64",
                           "mInterlockedExchangeAdd64",
                           "mInterlockedAnd64",
                           "mInterlockedOr64",
                           "mInterlockedXor64",
                           "GetAppDirPath",
                           "GetAppDirPathW",
                           "GetAppDirPathUTF8",
                           "GetAppDirPathFree",
                           "GetAppDirPathFreeW",
                           "SAFE_STRCAT",
                           "mGetPrivateProfileString",
                           "mGetPrivateProfileStringW",
                           "mWritePrivateProfileString",
                           "mWritePrivateProfileStringW",
                           "InitializeCriticalSectionTimeout",
                           "DeleteCriticalSectionTimeout",
                           "EnterCriticalSectionTimeout",
                           "LeaveCriticalSectionTimeout"})
    EXPECT_NE(dlsym(lib, name), nullptr) << name;
  EXPECT_EQ(*static_cast<int32_t*>(dlsym(lib, "IsCMPXCHG8BSupport")), -1);
  EXPECT_EQ(dlsym(lib, "_Z11CompatAllocii"), nullptr);
  dlclose(lib);
}
