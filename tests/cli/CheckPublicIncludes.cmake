# Fails when a source of the command line includes a header of the library that a host does
# not get: the command line is built as any host is, on the public headers alone (and the
# entry of `pendrel serve`, tools/server/Serve.h, which it dispatches to, and the programs'
# shared text conversions, tools/text/).
#   cmake -DSOURCE_DIR=<tools/cli> -P CheckPublicIncludes.cmake
cmake_minimum_required(VERSION 3.25)
set(allowed
  "message/CMimeFile.h" "message/CRequest.h" "message/CResponse.h" "handler/CHandler.h")
file(GLOB_RECURSE sources "${SOURCE_DIR}/*.cpp" "${SOURCE_DIR}/*.h")
set(checked 0)
foreach(source IN LISTS sources)
  file(STRINGS "${source}" includes REGEX "^#include \"")
  foreach(line IN LISTS includes)
    string(REGEX REPLACE "^#include \"([^\"]+)\".*" "\\1" header "${line}")
    if(NOT header MATCHES "^tools/(cli|text)/" AND NOT header STREQUAL "tools/server/Serve.h"
       AND NOT header IN_LIST allowed)
      message(SEND_ERROR "${source}: includes ${header}, which is not a public header")
    endif()
    math(EXPR checked "${checked} + 1")
  endforeach()
endforeach()
if(checked EQUAL 0)
  message(FATAL_ERROR "no includes found under ${SOURCE_DIR}")
endif()
message(STATUS "${checked} includes, all of public headers or of the command line")
