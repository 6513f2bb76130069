// System events of the plug-in itself, the media name of a channel and the
// whole-file read (see service5.h). PostSystemEvent is called by the
// liveness judge and the write process on the buffering thread and the
// frame path, and by forced recording on a host thread; UnivReadFromFile by
// the load of the saved parameters.
#include "linux/common_use/service/service5.h"

#include <cerrno>

#include "linux/common_use/core_bus.h"
#include "linux/common_use/service/service2.h"
#include "platform/pl_os.h"

namespace {

const int32_t I_SIGN_MEDIA_NAME = 100;
const int32_t I_SIGN_EVENT_COMMENT = 133;
const int32_t I_SIGN_EVENT_BLANK = 134;
const int32_t I_SIGN_EVENT_MEDIA = 135;
const size_t UI_ADDRESS_SIZE = 51;

// The digests of the three media texts, made once for the process.
struct TMediaDigests {
  int64_t m_i64_video;
  int64_t m_i64_audio;
  int64_t m_i64_empty;
};

const TMediaDigests& MediaDigests() {
  static const TMediaDigests s_digests_lv = {static_cast<int64_t>(StrHash64("video", 5)),
                                             static_cast<int64_t>(StrHash64("audio", 5)),
                                             static_cast<int64_t>(StrHash64("", 0))};
  return s_digests_lv;
}

}  // namespace

void ResolveMediaName(int64_t i64_media_av, SafeString* p_out_av) {
  if (p_out_av == nullptr) return;
  const TMediaDigests& digests_lv = MediaDigests();
  if (i64_media_av == digests_lv.m_i64_video) {
    SafeStringAssign(p_out_av, "video", I_SIGN_MEDIA_NAME);
  } else if (i64_media_av == digests_lv.m_i64_audio) {
    SafeStringAssign(p_out_av, "audio", I_SIGN_MEDIA_NAME);
  } else if (i64_media_av == digests_lv.m_i64_empty) {
    SafeStringAssign(p_out_av, "", I_SIGN_MEDIA_NAME);
  }
}

// Receivers read the message during the call only, so every value may live
// on this frame. The receivers expect the elements in this order.
void PostSystemEvent(TrackHandle h_track_av, int32_t i_event_code_av, const SafeString* p_keys_av,
                     int64_t i64_media_av, const char* s_comment_av, const char* s_sysinfo_av) {
  SafeString comment_lv;
  SafeString media_lv;
  ResolveMediaName(i64_media_av, &media_lv);
  SafeStringAssign(&comment_lv, s_comment_av, I_SIGN_EVENT_COMMENT);
  SafeStringAppend(&comment_lv, " ", I_SIGN_EVENT_BLANK);
  SafeStringAppend(&comment_lv, media_lv.m_p_text, I_SIGN_EVENT_MEDIA);

  char s_address_lv[UI_ADDRESS_SIZE] = {};
  FormatStr(s_address_lv, UI_ADDRESS_SIZE - 1, "%d.%d.%d.%d", 0, 0, 0, 0);

  char* s_key1_lv = nullptr;
  char* s_key2_lv = nullptr;
  char* s_key3_lv = nullptr;
  if (p_keys_av != nullptr) {
    s_key1_lv = p_keys_av[0].m_p_text;
    s_key2_lv = p_keys_av[1].m_p_text;
    s_key3_lv = p_keys_av[2].m_p_text;
  }
  int32_t i_event_type_lv = i_event_code_av + SYS_EVENT_BASE;
  int32_t i_user_id_lv = 0;
  int64_t i64_login_hash_lv = 0;
  char s_login_lv[] = "system";
  char s_sysjson_lv[] = "{}";

  ProfileParam params_lv[SYS_EVENT_ELEMS + 1] = {
      {PP_INT64, "time", nullptr},
      {PP_INT32, "event_type", &i_event_type_lv},
      {PP_STRING, "key1", s_key1_lv},
      {PP_STRING, "key2", s_key2_lv},
      {PP_STRING, "key3", s_key3_lv},
      {PP_STRING, "ip", s_address_lv},
      {PP_INT32, "port", nullptr},
      {PP_STRING, "comment", comment_lv.m_p_text},
      {PP_INT32, "user_id", &i_user_id_lv},
      {PP_STRING, "user_login", s_login_lv},
      {PP_INT64, "user_login_hash", &i64_login_hash_lv},
      {PP_STRING, "sysjson", s_sysjson_lv},
      {PP_STRING, "sysinfo", const_cast<char*>(s_sysinfo_av)},
      {PP_LIST, "image", nullptr},
      {PP_END, nullptr, nullptr},
  };
  // The bus delivers without a result here, so a post cannot be seen to
  // fail; an event that was not received is not sent again either way.
  BusData(h_track_av, params_lv);
}

// Read from the start, whatever the descriptor's position; a file shorter
// than the buffer is no failure, the count tells how much came.
int32_t UnivReadFromFile(int fd_av, void* p_buffer_av, uint32_t ui_size_av, uint32_t* p_count_av) {
  if (p_count_av != nullptr) *p_count_av = 0;
  int i_error_lv = 0;
  if (p_buffer_av == nullptr && ui_size_av > 0) {
    i_error_lv = EINVAL;
  } else if (PlFileSeekStart(fd_av, 0) < 0) {
    i_error_lv = errno;
  }
  long i_read_lv = -1;
  if (i_error_lv == 0) {
    i_read_lv = PlFileRead(fd_av, p_buffer_av, ui_size_av);
    if (i_read_lv < 0) i_error_lv = errno;
  }
  if (i_error_lv != 0) {
    TRACE45(TLOG_ARC, TSEV_FAULT, "<error>UnivReadFromFile GetLastError %d", i_error_lv);
    return 0;
  }
  if (p_count_av != nullptr) *p_count_av = static_cast<uint32_t>(i_read_lv);
  return 1;
}
