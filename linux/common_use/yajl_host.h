// The host's form of the JSON tree parser: YAJL's yajl_tree_parse with the
// caller's file and line as two extra arguments, so that a host can tell
// who asked for a tree. The plug-in links YAJL itself; this is the one door
// every reader of a JSON document goes through.
#pragma once

#include <cstddef>
#include <cstdint>

#include <yajl/yajl_tree.h>

// Root node or null. The error text, when there is one, lands in the
// caller's buffer; the file and line only name the caller.
yajl_val yajl_tree_parse_host(const char* s_input_av, char* s_errbuf_av, size_t ui_errbuf_size_av,
                              const char* s_file_av, int32_t i_line_av);

#define YAJL_TREE_PARSE(input, errbuf, size) yajl_tree_parse_host((input), (errbuf), (size), __FILE__, __LINE__)
