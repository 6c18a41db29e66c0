# Writes a C++ source that holds files as character arrays, so that the
# browser view's page (view.html, view.js) is a real file to open and lint
# and still part of the one viewer binary. Run as a script at build time:
#
#   cmake -DOUT=<file.cpp> -DHEADER=<header to include> -DASSETS=<name>=<file>|... -P embed.cmake
#
# Each <name> becomes `extern const char <name>[]` in namespace otools: the
# file's bytes as they stand, then a terminating NUL.
set(text "// Generated from the files named below by viewer/embed.cmake; do not edit.\n")
string(APPEND text "#include \"${HEADER}\"\n\nnamespace otools {\n")
string(REPLACE "|" ";" ASSETS "${ASSETS}")
foreach(asset IN LISTS ASSETS)
  string(REGEX MATCH "^([A-Za-z_][A-Za-z0-9_]*)=(.+)$" ok "${asset}")
  if(NOT ok)
    message(FATAL_ERROR "embed.cmake: '${asset}' is not NAME=FILE")
  endif()
  set(name ${CMAKE_MATCH_1})
  set(file ${CMAKE_MATCH_2})
  file(READ ${file} hex HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${hex}")
  get_filename_component(base ${file} NAME)
  string(APPEND text "\n// ${base}\nextern const char ${name}[] = {${bytes}'\\0'};\n")
endforeach()
string(APPEND text "\n}  // namespace otools\n")
# Written only when it changed, so an unchanged page rebuilds nothing.
if(EXISTS ${OUT})
  file(READ ${OUT} before)
endif()
if(NOT "${before}" STREQUAL "${text}")
  file(WRITE ${OUT} "${text}")
endif()
