// The subscriptions of log sites as operators see them: the query that
// shows the list, and its saved file. dll_init loads the file, the buffering
// threads and dll_free save it. The list itself and the queries that change
// it are in log_sites, below the trace functions this unit writes with.
#include "linux/common_use/config.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <yajl/yajl_tree.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "include/host/core_api.h"
#include "linux/common_use/service/Stable.h"
#include "linux/common_use/service/service2.h"
#include "linux/common_use/yajl_host.h"
#include "platform/pl_os.h"
#include "platform/pl_sync.h"

namespace {

// Sign of the format texts the list keeps.
const int32_t SIGN_LOG_TEXT = 100;
// A subscription whose format and file texts together reach this length is
// shown as an empty item.
const size_t UI_LIST_ITEM_LIMIT = 1500;
// What each item adds to the size of the joined answer beyond its length.
const int64_t I64_LIST_ITEM_SPARE = 100;

const int32_t POINT_LIST_START = 20583;
const int32_t POINT_LIST_ITEM_START = 21571;
const int32_t POINT_LIST_ITEM_END = 21572;
const int32_t POINT_LIST_END = 20552;

// The plug-in's name: the host's key of its path and the saved file's name.
const char* const S_PLUGIN_NAME = "writer";
const size_t UI_PATH_AREA = 2048;
// Format texts that together reach this size are not saved: a file that
// large is no subscription list an operator made.
const size_t UI_SAVE_TEXTS_LIMIT = 10000000;
// What the file's markup adds to the format texts, beyond each element's.
const size_t UI_SAVE_MARKUP = 330;
// A saved file is never larger than its texts and their markup; anything
// much larger is not ours and is not read.
const long long I64_LOAD_LIMIT = 64LL * 1024 * 1024;
// The log shows a loaded file in pieces of this size.
const size_t UI_LOG_PIECE = 90;

const char* TextOf(const SafeString* p_text_av) {
  return p_text_av != nullptr && p_text_av->m_p_text != nullptr ? p_text_av->m_p_text : "";
}

// One item of the "query_log_status" answer. The texts are written as they
// stand, unescaped, as the saved file has them too.
std::string LogStatusListItem(const TLogStatusElem* p_elem_av) {
  const char* s_file_lv = TextOf(&p_elem_av->file);
  const char* s_log_lv = TextOf(&p_elem_av->log);
  size_t ui_texts_lv = strlen(s_file_lv) + strlen(s_log_lv);
  if (ui_texts_lv >= UI_LIST_ITEM_LIMIT) return std::string();
  std::string s_item_lv(ui_texts_lv + 64, '\0');
  int i_len_lv = snprintf(&s_item_lv[0], s_item_lv.size(), "{\"file\":\"%s\",\"line\":%d,\"log\":\"%s\",\"is_on\":%s}",
                          s_file_lv, p_elem_av->line, s_log_lv, p_elem_av->is_on != 0 ? "true" : "false");
  s_item_lv.resize(i_len_lv > 0 ? std::min(static_cast<size_t>(i_len_lv), s_item_lv.size() - 1) : 0);
  return s_item_lv;
}

// The host's path with each backslash a slash, cut at its last slash.
bool CutLastComponent(char* s_path_av) {
  for (char* p_lv = s_path_av; *p_lv != 0; p_lv++)
    if (*p_lv == '\\') *p_lv = '/';
  char* p_slash_lv = strrchr(s_path_av, '/');
  if (p_slash_lv == nullptr) return false;
  *p_slash_lv = 0;
  return true;
}

bool IsFolder(const char* s_path_av) {
  struct stat st_lv;
  return stat(s_path_av, &st_lv) == 0 && S_ISDIR(st_lv.st_mode);
}

// The folder of the plug-in's folder, from the host; false when there is
// no such path or it does not fit.
bool SaveRoot(char* s_out_av, size_t ui_size_av) {
  char* s_host_lv = core_get_path(S_PLUGIN_NAME, "xxx", 1);
  if (s_host_lv == nullptr) return false;
  size_t ui_len_lv = strlen(s_host_lv);
  bool b_fits_lv = ui_len_lv < ui_size_av;
  if (b_fits_lv) memcpy(s_out_av, s_host_lv, ui_len_lv + 1);
  core_mfree(s_host_lv);
  if (!b_fits_lv) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>saved parameters: the plug-in's path of %d bytes is too long",
            static_cast<int>(ui_len_lv));
    return false;
  }
  // Two components off: the plug-in's file and its folder. A path without
  // them has no place for the file.
  if (CutLastComponent(s_out_av) && CutLastComponent(s_out_av)) return true;
  TRACE45(TLOG_ARC, TSEV_FAULT, "<error>saved parameters: no folder above the plug-in's path %s", s_out_av);
  return false;
}

// The whole file, or false with a line saying why when it cannot be read.
bool ReadSavedFile(const char* s_path_av, std::string* p_text_av) {
  // Made when missing, as the first save will want it anyway.
  int fd_lv = open(s_path_av, O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd_lv < 0) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>saved parameters: cannot open %s (errno %d)", s_path_av, errno);
    return false;
  }
  struct stat st_lv;
  bool b_ok_lv = fstat(fd_lv, &st_lv) == 0 && S_ISREG(st_lv.st_mode);
  if (!b_ok_lv) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>saved parameters: %s is not a plain file", s_path_av);
  } else if (st_lv.st_size > I64_LOAD_LIMIT) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>saved parameters: %s has %lld bytes, too many to be ours; not read",
            s_path_av, static_cast<long long>(st_lv.st_size));
    b_ok_lv = false;
  } else {
    p_text_av->assign(static_cast<size_t>(st_lv.st_size), '\0');
    long i_read_lv = p_text_av->empty() ? 0 : PlFileRead(fd_lv, &(*p_text_av)[0], p_text_av->size());
    b_ok_lv = i_read_lv == static_cast<long>(p_text_av->size());
    if (!b_ok_lv) {
      TRACE45(TLOG_ARC, TSEV_FAULT, "<error>saved parameters: %s read %ld of %lld bytes", s_path_av, i_read_lv,
              static_cast<long long>(st_lv.st_size));
    }
  }
  if (close(fd_lv) != 0) TRACE44(TLOG_ARC, "<error>Error: close handle");
  return b_ok_lv;
}

// Every loaded element needs its identity, and the sites must look again.
void LoadedElemsReady(CLogStatusList* p_list_av) {
  {
    PlCritLock lock_lv(&p_list_av->m_list.m_crit_sect);
    for (int32_t i_lv = 0; i_lv < p_list_av->m_list.m_i_count; i_lv++) {
      TLogStatusElem* p_elem_lv = LogStatusElemAt(p_list_av, i_lv);
      if (p_elem_lv != nullptr) p_elem_lv->hash = LogStatusHash(TextOf(&p_elem_lv->log));
    }
  }
  LogSitesLookAgain();
}

}  // namespace

void LogStatusList(SafeString* p_out_av, int32_t i_slot_av) {
  CLogStatusList* p_list_lv = g_p_log_status_list;
  if (p_out_av == nullptr || p_list_lv == nullptr) return;
  std::vector<std::string> items_lv;
  int64_t i64_total_lv = 0;
  {
    PlCritLock lock_lv(&p_list_lv->m_list.m_crit_sect);
    StableMark(i_slot_av, POINT_LIST_START);
    for (int32_t i_lv = 0; i_lv < p_list_lv->m_list.m_i_count; i_lv++) {
      TLogStatusElem* p_elem_lv = LogStatusElemAt(p_list_lv, i_lv);
      if (p_elem_lv == nullptr) continue;
      StableMark(i_slot_av, POINT_LIST_ITEM_START);
      items_lv.push_back(LogStatusListItem(p_elem_lv));
      i64_total_lv += static_cast<int64_t>(items_lv.back().size()) + I64_LIST_ITEM_SPARE;
      StableMark(i_slot_av, POINT_LIST_ITEM_END);
    }
    StableMark(i_slot_av, POINT_LIST_END);
  }
  LinesJoin(&items_lv, i64_total_lv, S_JOIN_HEAD, S_JOIN_TAIL, p_out_av);
}

int32_t BuildSavePath(char* s_out_av, size_t ui_size_av, int32_t b_make_folder_av) {
  if (s_out_av == nullptr || ui_size_av == 0) return -1;
  s_out_av[0] = 0;
  char s_path_lv[UI_PATH_AREA];
  if (!SaveRoot(s_path_lv, sizeof(s_path_lv))) return -1;
  size_t ui_root_lv = strlen(s_path_lv);
  if (ui_root_lv + strlen("/config/") + strlen(S_PLUGIN_NAME) + strlen(".js") >= sizeof(s_path_lv)) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>saved parameters: no room for the file name behind %s", s_path_lv);
    return -1;
  }
  strcat(s_path_lv, "/config");
  // A folder that cannot be made means no save; the subscriptions are a
  // diagnostic help, and the recording goes on without them.
  if (b_make_folder_av != 0 && !IsFolder(s_path_lv) && (PlMkdir(s_path_lv) != 0 || !IsFolder(s_path_lv))) return -1;
  strcat(s_path_lv, "/");
  strcat(s_path_lv, S_PLUGIN_NAME);
  strcat(s_path_lv, ".js");
  if (strlen(s_path_lv) >= ui_size_av) return -1;
  memcpy(s_out_av, s_path_lv, strlen(s_path_lv) + 1);
  return 0;
}

void LogJsonPieces(const char* s_text_av) {
  if (s_text_av == nullptr) return;
  size_t ui_len_lv = strlen(s_text_av);
  for (size_t ui_at_lv = 0; ui_at_lv < ui_len_lv; ui_at_lv += UI_LOG_PIECE) {
    char s_piece_lv[UI_LOG_PIECE + 1];
    size_t ui_n_lv = std::min(UI_LOG_PIECE, ui_len_lv - ui_at_lv);
    memcpy(s_piece_lv, s_text_av + ui_at_lv, ui_n_lv);
    s_piece_lv[ui_n_lv] = 0;
    // A "%" would be read as a format by whoever replays the log, and a
    // line feed would break the log's one-line-per-record form.
    for (size_t i_lv = 0; i_lv < ui_n_lv; i_lv++) {
      if (s_piece_lv[i_lv] == '%') s_piece_lv[i_lv] = '!';
      if (s_piece_lv[i_lv] == '\n') s_piece_lv[i_lv] = '?';
    }
    TRACE45(TLOG_ARC_TRACEDECIM, TSEV_TRACE, "<%s>json:%s", "rename", s_piece_lv);
  }
}

bool ParseLogStatusFile(CLogStatusList* p_list_av, const char* s_text_av) {
  if (p_list_av == nullptr || s_text_av == nullptr) return false;
  char s_errbuf_lv[1024] = {0};
  // The base layer parses with YAJL itself: the host's parser door lives
  // with the plug-in's units, above this layer.
  yajl_val root_lv = YAJL_TREE_PARSE(s_text_av, s_errbuf_lv, sizeof(s_errbuf_lv));
  const char* path_lv[] = {"query_log_status", nullptr};
  yajl_val array_lv = root_lv != nullptr ? yajl_tree_get(root_lv, path_lv, yajl_t_array) : nullptr;
  bool b_shape_lv = array_lv != nullptr;
  for (size_t i_lv = 0; b_shape_lv && i_lv < YAJL_GET_ARRAY(array_lv)->len; i_lv++) {
    yajl_val item_lv = YAJL_GET_ARRAY(array_lv)->values[i_lv];
    const char* log_path_lv[] = {"log", nullptr};
    yajl_val log_lv = item_lv != nullptr ? yajl_tree_get(item_lv, log_path_lv, yajl_t_string) : nullptr;
    // An element without a format text would subscribe to nothing.
    if (log_lv == nullptr || YAJL_GET_STRING(log_lv) == nullptr || YAJL_GET_STRING(log_lv)[0] == 0) continue;
    if (p_list_av->m_list.m_i_count >= I_LOG_STATUS_MAX) {
      TRACE45(TLOG_ARC, TSEV_FAULT, "<rename> saved file holds more than %d subscriptions, the rest is left out",
              static_cast<int>(I_LOG_STATUS_MAX));
      break;
    }
    TLogStatusElem* p_elem_lv = new TLogStatusElem();
    SafeStringAssign(&p_elem_lv->log, YAJL_GET_STRING(log_lv), SIGN_LOG_TEXT);
    // A saved "is_on":false does not survive: the element is made on, and
    // only true is looked at. After a restart every saved subscription is
    // on again.
    const char* on_path_lv[] = {"is_on", nullptr};
    if (YAJL_IS_TRUE(yajl_tree_get(item_lv, on_path_lv, yajl_t_true))) p_elem_lv->is_on = 1;
    if (CListOurAdd(&p_list_av->m_list, p_elem_lv) < 0) delete p_elem_lv;
  }
  if (root_lv != nullptr) yajl_tree_free(root_lv);
  return b_shape_lv;
}

void LogStatusLoad(CLogStatusList* p_list_av) {
  if (p_list_av == nullptr) return;
  char s_path_lv[UI_PATH_AREA];
  std::string s_text_lv;
  if (BuildSavePath(s_path_lv, sizeof(s_path_lv), 0) == 0 && ReadSavedFile(s_path_lv, &s_text_lv) &&
      !s_text_lv.empty()) {
    TRACE44(TLOG_ARC_TRACEDECIM, "<rename> readed bef ParamsParser44");
    LogJsonPieces(s_text_lv.c_str());
    ParseLogStatusFile(p_list_av, s_text_lv.c_str());
  }
  LoadedElemsReady(p_list_av);
  LogStatusRecomputeAllOff(p_list_av);
}

void LogStatusFileText(CLogStatusList* p_list_av, std::string* p_out_av) {
  p_out_av->clear();
  if (p_list_av == nullptr) return;
  PlCritLock lock_lv(&p_list_av->m_list.m_crit_sect);
  size_t ui_texts_lv = UI_SAVE_MARKUP;
  for (int32_t i_lv = 0; i_lv < p_list_av->m_list.m_i_count; i_lv++) {
    TLogStatusElem* p_elem_lv = LogStatusElemAt(p_list_av, i_lv);
    if (p_elem_lv != nullptr) ui_texts_lv += strlen(TextOf(&p_elem_lv->log));
  }
  if (ui_texts_lv >= UI_SAVE_TEXTS_LIMIT) return;
  p_out_av->reserve(ui_texts_lv + 32 * static_cast<size_t>(p_list_av->m_list.m_i_count));
  p_out_av->append("{\"query_log_status\":[\n");
  bool b_first_lv = true;
  for (int32_t i_lv = 0; i_lv < p_list_av->m_list.m_i_count; i_lv++) {
    TLogStatusElem* p_elem_lv = LogStatusElemAt(p_list_av, i_lv);
    if (p_elem_lv == nullptr) continue;
    if (!b_first_lv) p_out_av->append(",\n");
    b_first_lv = false;
    // Written as it stands: a format text with a double quote makes a file
    // that the next start cannot read, and that list is lost then.
    p_out_av->append("{\"log\":\"").append(TextOf(&p_elem_lv->log)).append("\",\"is_on\":");
    p_out_av->append(p_elem_lv->is_on != 0 ? "true" : "false").append("}");
  }
  p_out_av->append("\n]}\n");
}

void SaveLogStatus(CLogStatusList* p_list_av) {
  if (p_list_av == nullptr) return;
  PlCritLock lock_lv(&p_list_av->m_crit_sect_save);
  std::string s_text_lv;
  LogStatusFileText(p_list_av, &s_text_lv);
  char s_path_lv[UI_PATH_AREA];
  if (BuildSavePath(s_path_lv, sizeof(s_path_lv), 1) == 0) WriteSavedFile(s_path_lv, s_text_lv);
}

void WriteSavedFile(const char* s_path_av, const std::string& s_text_av) {
  if (s_path_av == nullptr) return;
  if (unlink(s_path_av) != 0) TRACE45(TLOG_ARC, TSEV_FAULT, "<error>Error: delete file 2 %s ", s_path_av);
  // Truncated as well: a file that could not be deleted must not keep a
  // tail of its old text behind a shorter new one.
  int fd_lv = open(s_path_av, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd_lv < 0) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>SaveParamsArchive_Level1 error create file ");
    TRACE44(TLOG_ARC,
            "<error>Error - error create file for saved info for WriteFilesServer2 (parted) (in dir) "
            "WriteBasePathInfoToFile 2 \n name len %d, name %s ",
            static_cast<int>(strlen(s_path_av)), s_path_av);
    return;
  }
  long i_written_lv = s_text_av.empty() ? 0 : PlFileWrite(fd_lv, s_text_av.data(), s_text_av.size());
  if (i_written_lv < 0)
    TRACE44(TLOG_ARC, "<error>Error - error write 10");
  else if (static_cast<size_t>(i_written_lv) < s_text_av.size())
    TRACE44(TLOG_ARC, "<error>Error - error write 11");
  fsync(fd_lv);
  if (close(fd_lv) != 0) TRACE44(TLOG_ARC, "<error>Error: close handle");
}
