# Writes the dissector's code-name module from the library's code table, so
# that the names Wireshark shows are the ones the library prints.
#   cmake -DTABLE=<codes/tavro-codes.tsv> -DOUTPUT=<.../tavro_codes.lua> -P GenerateLuaCodes.cmake
# The module returns { names = { TYPE = { [value] = "NAME" } },
#                      values = { NAME = value } }.
# Where two names share a value, names keeps the first (the one the library
# prints); values has both.
cmake_minimum_required(VERSION 3.18)
include(${CMAKE_CURRENT_LIST_DIR}/../../cmake/TavroWriteIfChanged.cmake)
if(NOT TABLE OR NOT OUTPUT)
  message(FATAL_ERROR "TABLE and OUTPUT are required")
endif()

file(STRINGS "${TABLE}" lines)
set(types "")
set(values "")
foreach(line IN LISTS lines)
  if(NOT line MATCHES "^([A-Z_]+)\t([A-Za-z_][A-Za-z0-9_]*)\t(-?[0-9]+)$")
    message(FATAL_ERROR "${TABLE}: not a TYPE<tab>NAME<tab>value line: ${line}")
  endif()
  set(type ${CMAKE_MATCH_1})
  set(name ${CMAKE_MATCH_2})
  set(value ${CMAKE_MATCH_3})
  if(NOT DEFINED seen_${type})
    set(seen_${type} "")
    set(body_${type} "")
    list(APPEND types ${type})
  endif()
  list(FIND seen_${type} "${value}" at)
  if(at EQUAL -1)
    list(APPEND seen_${type} "${value}")
    string(APPEND body_${type} "    [${value}] = \"${name}\",\n")
  endif()
  string(APPEND values "  ${name} = ${value},\n")
endforeach()
if(NOT types)
  message(FATAL_ERROR "${TABLE}: no codes")
endif()

set(text "-- Generated from libTAVRO's code table; do not edit.\nreturn {\nnames = {\n")
foreach(type IN LISTS types)
  string(APPEND text "  ${type} = {\n${body_${type}}  },\n")
endforeach()
string(APPEND text "},\nvalues = {\n${values}},\n}\n")

tavro_write_if_changed("${OUTPUT}" "${text}")
