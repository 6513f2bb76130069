// Saved parameters: the subscriptions of log sites (log_sites) shown to
// operators and kept in the file config/writer.js beside the folder of the
// plug-in's folder, loaded by dll_init, rewritten every 180 s by the
// buffering threads and once more by dll_free, so that a subscription
// survives a restart.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "linux/common_use/service/log_sites.h"
#include "linux/common_use/temp/tools.h"

// Query "query_log_status": every subscription with the site it is bound to,
// as a joined array in out; out stays as it was when the list is empty.
void LogStatusList(SafeString* p_out_av, int32_t i_slot_av);

// The saved file's path from the host's path of the plug-in: its last two
// components replaced by "config/writer.js". With b_make_folder_av the
// config folder is made when missing. 0, or -1 (out empty) when the host
// gives no path, the folder cannot be had or the path does not fit.
int32_t BuildSavePath(char* s_out_av, size_t ui_size_av, int32_t b_make_folder_av);
// The start of the run: the saved subscriptions back into the list, every
// one of them on, their hashes computed and the all-off flag recomputed.
// A missing, empty or broken file leaves the list empty.
void LogStatusLoad(CLogStatusList* p_list_av);
// The file's text into the list: the elements of the array
// "query_log_status" that carry a "log" text. False when the text is not
// of that shape; the elements read before then stay.
bool ParseLogStatusFile(CLogStatusList* p_list_av, const char* s_text_av);
// The file's text for the list as it stands now (empty when the format
// texts together reach the size limit).
void LogStatusFileText(CLogStatusList* p_list_av, std::string* p_out_av);
// Rewrites the saved file with the list; nothing when there is no path.
void SaveLogStatus(CLogStatusList* p_list_av);
// Replaces the file at the path with the text (no temporary file).
void WriteSavedFile(const char* s_path_av, const std::string& s_text_av);
// A long text into the log in pieces of 90 bytes, "%" and line feeds
// masked, so that a file's content can be read from the log alone.
void LogJsonPieces(const char* s_text_av);
