# Writes the public code header from the library's own definitions, so that
# what applications compile against cannot drift from what the library uses.
#   cmake -DSOURCE=<src/Ap/ApBase.h> -DOUTPUT=<.../TAVRO/TAVROCodes.h> -P GenerateTavroCodes.cmake
# Every line of a copied enumeration must be blank, a comment or a plain
# "NAME = number," entry; anything else stops the build rather than being
# copied wrongly.
cmake_minimum_required(VERSION 3.18)
if(NOT SOURCE OR NOT OUTPUT)
  message(FATAL_ERROR "SOURCE and OUTPUT are required")
endif()

file(STRINGS "${SOURCE}" lines)
set(enums COMMAND_CODE RSP_STATUS I_STATUS)
set(body "")
foreach(enum IN LISTS enums)
  set(inside FALSE)
  set(found FALSE)
  set(count 0)
  foreach(line IN LISTS lines)
    if(NOT inside)
      if(line MATCHES "^enum ${enum} : std::int32_t {$")
        set(inside TRUE)
        set(found TRUE)
        string(APPEND body "enum ${enum} : int32_t {\n")
      endif()
    elseif(line STREQUAL "};")
      string(APPEND body "};\n\n")
      set(inside FALSE)
      break()
    elseif(line MATCHES "^[ \t]*$" OR line MATCHES "^[ \t]*//")
      string(APPEND body "${line}\n")
    elseif(line MATCHES "^[ \t]*[A-Za-z_][A-Za-z0-9_]*[ \t]*=[ \t]*-?[0-9]+,?[ \t]*(//.*)?$")
      string(APPEND body "${line}\n")
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

set(text "#pragma once

/* Generated from the library's code definitions; do not edit.
 * Command codes, response statuses and API status codes of libTAVRO. */
#include <stdint.h>

${body}")
# Rewriting an unchanged header would rebuild everything that includes it.
if(EXISTS "${OUTPUT}")
  file(READ "${OUTPUT}" old)
  if(old STREQUAL text)
    return()
  endif()
endif()
file(WRITE "${OUTPUT}" "${text}")
