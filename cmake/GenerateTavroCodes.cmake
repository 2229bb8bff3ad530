# Writes the public code header, and a plain table of the same codes for the
# tools and bindings, from the library's own definitions, so that nothing
# built on them can drift from what the library uses.
#   cmake -DSOURCE=<src/Ap/ApBase.h> -DOUTPUT=<.../TAVRO/TAVROCodes.h>
#         [-DTABLE=<.../tavro-codes.tsv>] -P GenerateTavroCodes.cmake
# Every line of a copied enumeration must be blank, a comment, a plain
# "NAME = number," entry or a "NAME = ...fourCharCode('A', 'B', 'C', 'D')),"
# entry; anything else stops the build rather than being copied wrongly.
# The table has one "TYPE<tab>NAME<tab>decimal value" line per entry, in
# declaration order (the first of two names for one value is the one the
# library prints).
cmake_minimum_required(VERSION 3.18)
include(${CMAKE_CURRENT_LIST_DIR}/TavroWriteIfChanged.cmake)
if(NOT SOURCE OR NOT OUTPUT)
  message(FATAL_ERROR "SOURCE and OUTPUT are required")
endif()

function(char_code ch out)
  string(HEX "${ch}" hex)
  math(EXPR v "0x${hex}")
  set(${out} ${v} PARENT_SCOPE)
endfunction()


file(STRINGS "${SOURCE}" lines)
# Enumerations copied into the header; the others only go into the table.
set(header_enums COMMAND_CODE RSP_STATUS I_STATUS)
set(enums MSG_MARKER MSG_TYPE MGR_CLASS COMMAND_CODE RSP_STATUS I_STATUS CMD_CONTROL)
set(body "")
set(table "")
foreach(enum IN LISTS enums)
  list(FIND header_enums ${enum} in_header)
  set(inside FALSE)
  set(found FALSE)
  set(count 0)
  foreach(line IN LISTS lines)
    if(NOT inside)
      if(line MATCHES "^enum ${enum} : std::int32_t {$")
        set(inside TRUE)
        set(found TRUE)
        if(in_header GREATER -1)
          # C has no enumeration with a fixed type: the type is an int32_t
          # and the enumerators are plain int constants.
          string(APPEND body "#ifdef __cplusplus\nenum ${enum} : int32_t {\n#else\n"
                             "typedef int32_t ${enum};\nenum ${enum} {\n#endif\n")
        endif()
      endif()
    elseif(line STREQUAL "};")
      if(in_header GREATER -1)
        string(APPEND body "};\n\n")
      endif()
      set(inside FALSE)
      break()
    elseif(line MATCHES "^[ \t]*$" OR line MATCHES "^[ \t]*//")
      if(in_header GREATER -1)
        string(APPEND body "${line}\n")
      endif()
    elseif(line MATCHES "^[ \t]*([A-Za-z_][A-Za-z0-9_]*)[ \t]*=[ \t]*(-?[0-9]+),?[ \t]*(//.*)?$")
      string(APPEND table "${enum}\t${CMAKE_MATCH_1}\t${CMAKE_MATCH_2}\n")
      if(in_header GREATER -1)
        string(APPEND body "${line}\n")
      endif()
      math(EXPR count "${count} + 1")
    elseif(in_header EQUAL -1 AND line MATCHES
           "^[ \t]*([A-Za-z_][A-Za-z0-9_]*)[ \t]*=.*fourCharCode\\('(.)', '(.)', '(.)', '(.)'\\)\\),?[ \t]*(//.*)?$")
      set(name ${CMAKE_MATCH_1})
      char_code("${CMAKE_MATCH_2}" a)
      char_code("${CMAKE_MATCH_3}" b)
      char_code("${CMAKE_MATCH_4}" c)
      char_code("${CMAKE_MATCH_5}" d)
      math(EXPR v "(${a} << 24) | (${b} << 16) | (${c} << 8) | ${d}")
      string(APPEND table "${enum}\t${name}\t${v}\n")
      math(EXPR count "${count} + 1")
    else()
      message(FATAL_ERROR "${SOURCE}: cannot copy this line of ${enum}: ${line}")
    endif()
  endforeach()
  if(NOT found)
    message(FATAL_ERROR "${SOURCE}: enum ${enum} not found")
  endif()
  if(inside OR count EQUAL 0)
    message(FATAL_ERROR "${SOURCE}: enum ${enum} is not closed or empty")
  endif()
endforeach()

tavro_write_if_changed("${OUTPUT}" "#pragma once

/* Generated from the library's code definitions; do not edit.
 * Command codes, response statuses and API status codes of libTAVRO. */
#include <stdint.h>

${body}")
if(TABLE)
  tavro_write_if_changed("${TABLE}" "${table}")
endif()
