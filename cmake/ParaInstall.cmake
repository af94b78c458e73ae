# Installed layout: the two shared libraries with their SONAME links, the
# public headers, a pkg-config file and a CMake package (namespace para::).
include(CMakePackageConfigHelpers)

set(PARA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/para)

# libpara finds libdov_common beside itself wherever the pair is installed;
# a consumer's own run path does not reach a library's dependencies.
set_target_properties(para PROPERTIES INSTALL_RPATH "$ORIGIN")

# Components follow the Debian split: runtime (the versioned libraries),
# dev (headers, the unversioned links, pkg-config and CMake files) and tools.
install(TARGETS para dov_common EXPORT paraTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/para.h ${PROJECT_SOURCE_DIR}/common/dov_common.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(FILES ${PROJECT_SOURCE_DIR}/examples/host/host.c
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT dev)

install(EXPORT paraTargets NAMESPACE para:: DESTINATION ${PARA_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/paraConfig.cmake.in
  ${PROJECT_BINARY_DIR}/paraConfig.cmake INSTALL_DESTINATION ${PARA_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/paraConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/paraConfig.cmake ${PROJECT_BINARY_DIR}/paraConfigVersion.cmake
  DESTINATION ${PARA_CMAKE_DIR} COMPONENT dev)

# The .pc file finds its prefix from its own place, so an installation
# moved with `cmake --install --prefix` or DESTDIR still resolves.
file(RELATIVE_PATH PARA_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" PARA_PC_TO_PREFIX "${PARA_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/para.pc.in ${PROJECT_BINARY_DIR}/para.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/para.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
