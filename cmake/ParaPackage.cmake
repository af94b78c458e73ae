# Debian packages through CPack, from the same install rules as
# `cmake --install`: libpara1 (runtime), libpara-dev, para-tools.
# `make deb` configures with prefix /usr; a cross build packages for its
# target architecture.
set(CPACK_PACKAGE_NAME para)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "parameter library of the network camera")
set(PARA_DEB_MAINTAINER "para maintainers <para-maintainers@example.org>" CACHE STRING "Maintainer field of the packages")
set(CPACK_PACKAGE_CONTACT "${PARA_DEB_MAINTAINER}")
# Installed through DESTDIR with prefix /usr whatever the build's own prefix,
# so that absolute destinations (/etc/default) land in the package.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_STRIP_FILES ON)

if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
endif()

# Written out rather than found by dpkg-shlibdeps, which cannot see the
# sibling packages of one build nor, in a cross build, the target's database.
set(full_version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libpara${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6 (>= 2.34), libstdc++6 (>= 12), libgcc-s1, libcjson1 (>= 1.7.14)")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "parameter library of the network camera (runtime)
 libpara owns every user setting of the camera and answers requests on
 UDP port 6800; libdov_common is the stand-in common service library.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libpara-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# pkg-config: the CMake package finds cJSON through it.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libpara${PROJECT_VERSION_MAJOR} (= ${full_version}), libcjson-dev, pkg-config")
set(CPACK_COMPONENT_DEV_DESCRIPTION "parameter library of the network camera (development files)
 The C header para.h, pkg-config and CMake files, and a host example.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME para-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
# procps: /bin/kill of the unit's reload.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libpara${PROJECT_VERSION_MAJOR} (= ${full_version}), libc6 (>= 2.34), libstdc++6 (>= 12), libgcc-s1, procps")
if(TARGET paramweb) # its HTTP library and the password hashing (yescrypt)
  string(APPEND CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS ", libcpp-httplib0.11, libcrypt1 (>= 1:4.1.0)")
endif()
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "parameter server and client of the network camera
 paramd serves parameter files on UDP port 6800 (with a systemd unit);
 paramctl reads and writes settings through the port.")
file(WRITE ${PROJECT_BINARY_DIR}/deb-tools/conffiles "/etc/default/paramd\n")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/deb-tools/conffiles
    ${CMAKE_CURRENT_LIST_DIR}/deb-tools/postinst ${CMAKE_CURRENT_LIST_DIR}/deb-tools/prerm
    ${CMAKE_CURRENT_LIST_DIR}/deb-tools/postrm)
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# The shared libraries come with their shlibs and the ldconfig trigger.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
file(WRITE ${PROJECT_BINARY_DIR}/deb-runtime/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/deb-runtime/triggers)

# Every package carries the copyright file and a Debian changelog (gzipped
# without a time stamp, so that packages build the same each time).
configure_file(${CMAKE_CURRENT_LIST_DIR}/changelog.Debian.in ${PROJECT_BINARY_DIR}/deb-doc/changelog.Debian @ONLY)
execute_process(COMMAND gzip -9nc ${PROJECT_BINARY_DIR}/deb-doc/changelog.Debian
                OUTPUT_FILE ${PROJECT_BINARY_DIR}/deb-doc/changelog.Debian.gz)
foreach(component runtime dev tools)
  string(TOUPPER ${component} upper)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/copyright ${PROJECT_BINARY_DIR}/deb-doc/changelog.Debian.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME} COMPONENT ${component})
endforeach()

include(CPack)
