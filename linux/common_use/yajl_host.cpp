// The host's five-argument tree parser over the YAJL the plug-in links
// (see yajl_host.h). Called by the configuration reader, the schedule
// binding and the forced-recording commands.
#include "linux/common_use/yajl_host.h"

yajl_val yajl_tree_parse_host(const char* s_input_av, char* s_errbuf_av, size_t ui_errbuf_size_av,
                              const char* s_file_av, int32_t i_line_av) {
  (void)s_file_av;
  (void)i_line_av;
  if (s_input_av == nullptr) return nullptr;
  return yajl_tree_parse(s_input_av, s_errbuf_av, ui_errbuf_size_av);
}
