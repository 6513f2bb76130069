// CListOur: a growable array of opaque pointers with its own recursive lock.
// The list of channels and the log site list are built on it. The list does
// not own what its items point at. A walker takes m_crit_sect around the walk.
#pragma once

#include <cstdint>

#include "platform/pl_sync.h"

class CListOur {
 public:
  CListOur();
  ~CListOur();
  CListOur(const CListOur&) = delete;
  CListOur& operator=(const CListOur&) = delete;

  void** m_pp_items;
  int32_t m_i_capacity;
  PlCritSect m_crit_sect;
  int32_t m_i_count;
};

// Appends; returns the new item's index.
int32_t CListOurAdd(CListOur* p_list_av, void* p_item_av);
// Removes the first item equal to the pointer; the last item takes its place.
void CListOurRemove(CListOur* p_list_av, void* p_item_av);
// The item at index, or null out of bounds. Take the lock around a walk.
void* CListOurGet(CListOur* p_list_av, int32_t i_index_av);
// Zeroes the items and sets count to 0, under the lock.
void CListOurClear(CListOur* p_list_av);
