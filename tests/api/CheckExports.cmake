# Checks the shared library's export table: the public names are there and no internal
# helper is. Run as: cmake -DLIBRARY=<file> -DDUMPER=<nm or objdump> -DDEMANGLER=<c++filt>
#                          -DFORMAT=<nm|pe> -P CheckExports.cmake
if(FORMAT STREQUAL "pe")
  execute_process(COMMAND ${DUMPER} -p ${LIBRARY} OUTPUT_VARIABLE table RESULT_VARIABLE rc)
else()
  execute_process(COMMAND ${DUMPER} -D --defined-only ${LIBRARY} OUTPUT_VARIABLE table
                  RESULT_VARIABLE rc)
endif()
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cannot read the export table of ${LIBRARY}")
endif()
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/exports-raw.txt "${table}")
execute_process(COMMAND ${DEMANGLER} INPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/exports-raw.txt
                OUTPUT_VARIABLE table)

set(required "Pendrel::Version" "Pendrel::CRequest::CRequest" "Pendrel::CResponse::CResponse"
    "Pendrel::CMimeFile::LoadFromFile" "Pendrel::GetMimeType" "Pendrel::Error" "Pendrel::SIMPLEX"
    "Pendrel::CRequest::ToJsonString" "Pendrel::CResponse::FromJsonString")
foreach(name ${required})
  string(FIND "${table}" "${name}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "not exported: ${name}")
  endif()
endforeach()

# Internal layers: text helpers, JSON tree and parser, the pipe channel, private details, the
# basic utilities of base/.
set(forbidden "Utf16ToUtf8" "Utf8ToUtf16" "FormatString" "FormatWString" "ToUpperW"
    "detail::" "Pendrel::base::" "JsonValue" "ParseJson" "WriteJson" "EscapeJsonText"
    "NamedPipeChannel")
foreach(name ${forbidden})
  string(FIND "${table}" "${name}" at)
  if(NOT at EQUAL -1)
    message(FATAL_ERROR "internal name exported: ${name}")
  endif()
endforeach()
message(STATUS "export table of ${LIBRARY} is as intended")
