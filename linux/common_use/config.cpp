// Placeholder bodies; replaced by the real site list.
#include "linux/common_use/config.h"

CLogStatusList* g_p_log_status_list = nullptr;

TLogStatusElem::TLogStatusElem() : is_on(1), hash(0), site(nullptr), line(0) {}
TLogStatusElem::~TLogStatusElem() {}
CLogStatusList::CLogStatusList() : m_i64_last_save(0), m_b_all_off(0) {}
CLogStatusList::~CLogStatusList() {}
