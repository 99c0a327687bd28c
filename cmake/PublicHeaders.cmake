# The headers an application can reach: the closure of the #include <scpkit/...>
# lines, starting from include/scpkit/scpkit.h. Only these are installed, so an
# internal header cannot leak into the installed tree, and a header that the
# public API starts to use is installed without anyone updating a list.

# scpkit_public_headers(OUT_VAR INCLUDE_ROOT ROOT_HEADER): OUT_VAR receives the
# paths, relative to INCLUDE_ROOT, of ROOT_HEADER and every header it reaches.
function(scpkit_public_headers out_var include_root root_header)
  set(pending ${root_header})
  set(reached "")
  while(pending)
    list(POP_FRONT pending header)
    if(header IN_LIST reached)
      continue()
    endif()
    set(path ${include_root}/${header})
    if(NOT EXISTS ${path})
      message(FATAL_ERROR "public header ${header} is included but does not exist")
    endif()
    list(APPEND reached ${header})
    # Reconfigure when a public header's includes change.
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${path})
    file(STRINGS ${path} lines REGEX "^[ \t]*#[ \t]*include[ \t]*<scpkit/")
    foreach(line IN LISTS lines)
      string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*<(scpkit/[^>]+)>.*" "\\1" included "${line}")
      list(APPEND pending ${included})
    endforeach()
  endwhile()
  list(SORT reached)
  set(${out_var} ${reached} PARENT_SCOPE)
endfunction()
