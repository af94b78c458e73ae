# Install-time part of tools/CMakeLists.txt: writes paramd.service and its
# environment file for the prefix being installed to. Prefix /usr (the
# Debian packages) keeps the environment file in /etc/default.
set(prefix "${CMAKE_INSTALL_PREFIX}")
if(prefix STREQUAL "/usr")
  set(PARAMD_ENV_DIR /etc/default)
else()
  set(PARAMD_ENV_DIR ${prefix}/etc/default)
endif()
set(PARAMD_BIN ${prefix}/${PARA_BINDIR}/paramd)
set(PARAMD_DEVICE_DIR ${prefix}/${PARA_DATADIR}/para/device)
configure_file(${PARA_UNIT_SOURCE_DIR}/paramd.service.in ${PARA_UNIT_BINARY_DIR}/paramd.service @ONLY)
configure_file(${PARA_UNIT_SOURCE_DIR}/paramd.default.in ${PARA_UNIT_BINARY_DIR}/paramd @ONLY)
file(INSTALL DESTINATION ${prefix}/lib/systemd/system TYPE FILE FILES ${PARA_UNIT_BINARY_DIR}/paramd.service)
file(INSTALL DESTINATION ${PARAMD_ENV_DIR} TYPE FILE FILES ${PARA_UNIT_BINARY_DIR}/paramd)
