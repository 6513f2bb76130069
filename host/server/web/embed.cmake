# Writes the dashboard's files into one C++ source as byte arrays, with the
# table that SrvDashboardFind searches. Run at build time:
#   cmake -DSRC=<folder> -DOUT=<file.cpp> -DFILES="index.html;app.js" -P embed.cmake
set(arrays "")
set(table "")
set(index 0)
foreach(name IN LISTS FILES)
  file(READ "${SRC}/${name}" hex HEX)
  string(LENGTH "${hex}" digits)
  math(EXPR size "${digits} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  string(APPEND arrays "const unsigned char FILE_${index}[] = {${bytes}0};\n")
  if(name MATCHES "\\.html$")
    set(type "text/html; charset=utf-8")
  elseif(name MATCHES "\\.js$")
    set(type "text/javascript; charset=utf-8")
  elseif(name MATCHES "\\.css$")
    set(type "text/css; charset=utf-8")
  elseif(name MATCHES "\\.svg$")
    set(type "image/svg+xml")
  else()
    set(type "application/octet-stream")
  endif()
  string(APPEND table "    {\"/${name}\", \"${type}\", FILE_${index}, ${size}},\n")
  math(EXPR index "${index} + 1")
endforeach()
file(WRITE "${OUT}.tmp" "// Made by host/server/web/embed.cmake from the dashboard's files.\n"
  "#include \"host/server/srv_dashboard.h\"\n\nnamespace {\n${arrays}\n"
  "const SrvDashboardFile FILES[] = {\n${table}};\n}  // namespace\n\n"
  "const SrvDashboardFile* SrvDashboardFind(const std::string& s_path_av) {\n"
  "  for (const SrvDashboardFile& file_lv : FILES)\n"
  "    if (s_path_av == file_lv.m_s_path) return &file_lv;\n"
  "  return nullptr;\n}\n")
file(COPY_FILE "${OUT}.tmp" "${OUT}" ONLY_IF_DIFFERENT)
