// CListOur: growth steps, unordered removal, bounds, clearing, the lock.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "linux/common_use/service/service4.h"
#include "linux/common_use/temp/clist.h"

namespace {

class CListOurTest : public ::testing::Test {
 protected:
  void SetUp() override { g_p_mem_checker = new MemChecker(); }
  void TearDown() override {
    delete g_p_mem_checker;
    g_p_mem_checker = nullptr;
  }
  static void* Item(intptr_t i_av) { return reinterpret_cast<void*>(i_av); }
};

TEST_F(CListOurTest, GrowsByTenThenByHalfInOneCheckedBlock) {
  {
    CListOur list_lv;
    EXPECT_EQ(nullptr, CListOurGet(&list_lv, 0));
    std::vector<int> caps_lv{list_lv.m_i_capacity};
    for (int i_lv = 1; i_lv <= 34; i_lv++) {
      EXPECT_EQ(i_lv - 1, CListOurAdd(&list_lv, Item(i_lv)));
      if (caps_lv.back() != list_lv.m_i_capacity) caps_lv.push_back(list_lv.m_i_capacity);
    }
    EXPECT_EQ((std::vector<int>{0, 10, 15, 22, 33, 49}), caps_lv);
    for (int i_lv = 0; i_lv < 34; i_lv++) EXPECT_EQ(Item(i_lv + 1), CListOurGet(&list_lv, i_lv));
    EXPECT_EQ(nullptr, CListOurGet(&list_lv, -1));
    EXPECT_EQ(nullptr, CListOurGet(&list_lv, 34));
    EXPECT_EQ(49 * 8, g_p_mem_checker->m_i64_memcounter);
    uint32_t ui_counter_lv;
    memcpy(&ui_counter_lv, reinterpret_cast<char*>(list_lv.m_pp_items) - MEM_HEADER_SIZE + 4, 4);
    EXPECT_EQ(21, g_p_mem_checker->m_p_base_elems[0][ui_counter_lv].m_i_sign);
  }
  EXPECT_EQ(0, g_p_mem_checker->m_i64_memcounter);  // the destructor released it
}

TEST_F(CListOurTest, RemoveMovesTheLastItemIntoTheGap) {
  CListOur list_lv;
  for (int i_lv = 1; i_lv <= 4; i_lv++) CListOurAdd(&list_lv, Item(i_lv));
  CListOurRemove(&list_lv, Item(2));
  ASSERT_EQ(3, list_lv.m_i_count);
  EXPECT_EQ(Item(4), CListOurGet(&list_lv, 1));
  EXPECT_EQ(Item(3), CListOurGet(&list_lv, 2));
  EXPECT_EQ(nullptr, list_lv.m_pp_items[3]);
  CListOurRemove(&list_lv, Item(99));
  EXPECT_EQ(3, list_lv.m_i_count);
  CListOurRemove(&list_lv, Item(3));  // the last one
  EXPECT_EQ(nullptr, list_lv.m_pp_items[2]);
  // A walker that holds the lock may remove: the lock lets it in again.
  list_lv.m_crit_sect.Enter();
  for (int i_lv = list_lv.m_i_count - 1; i_lv >= 0; i_lv--) CListOurRemove(&list_lv, CListOurGet(&list_lv, i_lv));
  list_lv.m_crit_sect.Leave();
  EXPECT_EQ(0, list_lv.m_i_count);
}

TEST_F(CListOurTest, ClearZeroesAndKeepsTheBlock) {
  CListOur list_lv;
  for (int i_lv = 1; i_lv <= 12; i_lv++) CListOurAdd(&list_lv, Item(i_lv));
  void** pp_block_lv = list_lv.m_pp_items;
  CListOurClear(&list_lv);
  EXPECT_EQ(0, list_lv.m_i_count);
  EXPECT_EQ(pp_block_lv, list_lv.m_pp_items);
  for (int i_lv = 0; i_lv < 15; i_lv++) EXPECT_EQ(nullptr, list_lv.m_pp_items[i_lv]);
  EXPECT_EQ(0, CListOurAdd(&list_lv, Item(7)));
}

TEST_F(CListOurTest, ConcurrentAddsAndRemovesKeepEveryItem) {
  CListOur list_lv;
  auto work_lv = [&list_lv](intptr_t i_base_av) {
    for (intptr_t i_lv = 1; i_lv <= 2000; i_lv++) {
      CListOurAdd(&list_lv, Item(i_base_av + i_lv));
      if (i_lv % 2 == 0) CListOurRemove(&list_lv, Item(i_base_av + i_lv));
    }
  };
  std::thread one_lv(work_lv, 0), two_lv(work_lv, 100000);
  one_lv.join();
  two_lv.join();
  std::set<void*> seen_lv;
  for (int i_lv = 0; i_lv < list_lv.m_i_count; i_lv++) seen_lv.insert(CListOurGet(&list_lv, i_lv));
  EXPECT_EQ(2000, list_lv.m_i_count);
  EXPECT_EQ(2000u, seen_lv.size());
  for (void* p_lv : seen_lv) EXPECT_EQ(1, reinterpret_cast<intptr_t>(p_lv) % 2);
}

}  // namespace
