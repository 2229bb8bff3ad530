# Turns the plain code table (TYPE<tab>NAME<tab>value lines) into C++ rows
#   {"TYPE", "NAME", value},
# for programs that name codes at run time.
#   cmake -DTABLE=<tavro-codes.tsv> -DOUTPUT=<file.inc> -P GenerateCodeTableSource.cmake
cmake_minimum_required(VERSION 3.18)
include(${CMAKE_CURRENT_LIST_DIR}/TavroWriteIfChanged.cmake)
file(STRINGS "${TABLE}" lines)
set(text "// Generated from the library's code table; do not edit.\n")
foreach(line IN LISTS lines)
  if(NOT line MATCHES "^([A-Z_]+)\t([A-Za-z0-9_]+)\t(-?[0-9]+)$")
    message(FATAL_ERROR "${TABLE}: bad line: ${line}")
  endif()
  string(APPEND text "{\"${CMAKE_MATCH_1}\", \"${CMAKE_MATCH_2}\", ${CMAKE_MATCH_3}LL},\n")
endforeach()
tavro_write_if_changed("${OUTPUT}" "${text}")
