# What `cmake --install` and the package put under the prefix: the program and
# its man page and completion, the shared (or static) library, the public
# headers, a CMake package and a pkg-config file. Nothing installed names the
# prefix it was configured for: the program finds the library relative to
# itself, the pkg-config file and the CMake package relative to themselves, so
# the tree works wherever it is installed or moved.
include(CMakePackageConfigHelpers)
include(${CMAKE_CURRENT_LIST_DIR}/PublicHeaders.cmake)

# relative_install_dir(OUT FROM TO): the path from install dir FROM to TO,
# both relative to the prefix. A packager who gives absolute install dirs gets
# absolute paths (and a tree that cannot move).
function(relative_install_dir out from to)
  if(IS_ABSOLUTE "${from}" OR IS_ABSOLUTE "${to}")
    get_filename_component(rel "${to}" ABSOLUTE BASE_DIR "${CMAKE_INSTALL_PREFIX}")
  else()
    file(RELATIVE_PATH rel /prefix/${from} /prefix/${to})
  endif()
  set(${out} "${rel}" PARENT_SCOPE)
endfunction()

scpkit_public_headers(SCPKIT_PUBLIC_HEADERS ${CMAKE_CURRENT_SOURCE_DIR}/include scpkit/scpkit.h)
foreach(header IN LISTS SCPKIT_PUBLIC_HEADERS)
  get_filename_component(dir ${header} DIRECTORY)
  install(FILES include/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${dir})
endforeach()

install(TARGETS scpkit EXPORT scpkitTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})

if(TARGET scpkit_cli)
  relative_install_dir(bin_to_lib ${CMAKE_INSTALL_BINDIR} ${CMAKE_INSTALL_LIBDIR})
  if(NOT IS_ABSOLUTE "${bin_to_lib}")
    set(bin_to_lib "$ORIGIN/${bin_to_lib}")
  endif()
  set_target_properties(scpkit_cli PROPERTIES INSTALL_RPATH "${bin_to_lib}")
  install(TARGETS scpkit_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
# The program's documentation (globs, so that the build notices the files
# appearing).
file(GLOB SCPKIT_MAN_PAGES CONFIGURE_DEPENDS doc/*.1)
install(FILES ${SCPKIT_MAN_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
file(GLOB SCPKIT_COMPLETION CONFIGURE_DEPENDS doc/scpkit.bash-completion)
if(SCPKIT_COMPLETION)
  install(FILES ${SCPKIT_COMPLETION} RENAME scpkit
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
endif()

set(cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/scpkit)
install(EXPORT scpkitTargets NAMESPACE scpkit:: DESTINATION ${cmake_dir})
configure_package_config_file(cmake/scpkitConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/scpkitConfig.cmake INSTALL_DESTINATION ${cmake_dir})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/scpkitConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/scpkitConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/scpkitConfigVersion.cmake
        DESTINATION ${cmake_dir})

# pkg-config: the prefix is computed from the .pc file's own directory.
relative_install_dir(pc_to_prefix ${CMAKE_INSTALL_LIBDIR}/pkgconfig .)
string(REGEX REPLACE "/$" "" pc_to_prefix "${pc_to_prefix}")
set(SCPKIT_PC_PREFIX "${pc_to_prefix}")
if(NOT IS_ABSOLUTE "${pc_to_prefix}")
  set(SCPKIT_PC_PREFIX "\${pcfiledir}/${pc_to_prefix}")
endif()
set(SCPKIT_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
set(SCPKIT_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
foreach(kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
    set(SCPKIT_PC_${kind} "${CMAKE_INSTALL_${kind}}")
  endif()
endforeach()
# A shared library carries its libssh dependency itself; applications linking
# the static one need libssh too (pkg-config --static).
set(SCPKIT_PC_STATIC_DEPS "")
if(NOT BUILD_SHARED_LIBS)
  set(SCPKIT_PC_STATIC_DEPS "Requires.private: libssh >= 0.10")
endif()
configure_file(cmake/scpkit.pc.in ${CMAKE_CURRENT_BINARY_DIR}/scpkit.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/scpkit.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
