# tavro_write_if_changed(path text): writes `path` unless it already holds
# `text`. Generated headers and tables are rewritten only when they change,
# so that what includes them is not rebuilt for nothing.
function(tavro_write_if_changed path text)
  if(EXISTS "${path}")
    file(READ "${path}" old)
    if(old STREQUAL text)
      return()
    endif()
  endif()
  file(WRITE "${path}" "${text}")
endfunction()
