# `cpack -G DEB` in a build tree makes one Debian package holding everything
# `cmake --install` puts in place, under /usr. Its run-time dependencies (libc,
# libstdc++, libssh) are read from the binaries by dpkg-shlibdeps.
set(CPACK_PACKAGE_NAME scpkit)
set(CPACK_PACKAGE_VENDOR "scpkit developers")
set(CPACK_PACKAGE_CONTACT "scpkit developers <scpkit@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "SCP client library and command-line program: files, data and directory trees over SSH")
set(CPACK_PACKAGE_DESCRIPTION
    "scpkit copies files, in-memory data and whole directory trees to and from SSH servers with the SCP protocol. This package holds the scpkit program, the C++17 library with its headers, a CMake package and a pkg-config file.")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "pkg-config, cmake, g++ | clang")
include(CPack)
