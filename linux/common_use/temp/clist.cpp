// Placeholder bodies; replaced by the real list.
#include "linux/common_use/temp/clist.h"

CListOur::CListOur() : m_pp_items(nullptr), m_i_capacity(0), m_i_count(0) {}
CListOur::~CListOur() {}
int32_t CListOurAdd(CListOur*, void*) { return 0; }
void CListOurRemove(CListOur*, void*) {}
void* CListOurGet(CListOur*, int32_t) { return nullptr; }
void CListOurClear(CListOur*) {}
