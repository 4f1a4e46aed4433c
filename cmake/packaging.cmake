# Debian packages from the install rules (cpack -G DEB in the build tree):
#   libqmxvlib1     the shared object
#   libqmxvlib-dev  headers, pkg-config file, CMake package, libqmxvlib(3)
#   qmxmgr          the manager, qmxmgr(1), bash completion
#   qmxsim          the virtual host, for tool development without adapters
# No maintainer scripts: the library package's shlibs file is generated and
# ldconfig runs through dpkg's trigger (cmake/debian/ldconfig_trigger.cmake).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qmxvlib)
set(CPACK_PACKAGE_VENDOR "qmxvlib developers")
set(CPACK_PACKAGE_CONTACT "qmxvlib developers <maintainers@qmxvlib.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The manager links the library of its sibling package, not yet installed.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/cmake/debian/ldconfig_trigger.cmake)
set(CPACK_COMPONENTS_ALL libqmxvlib1 libqmxvlib-dev qmxmgr qmxsim)

# Per package: name, section, description.
set(CPACK_DEBIAN_LIBQMXVLIB1_PACKAGE_NAME libqmxvlib1)
set(CPACK_DEBIAN_LIBQMXVLIB1_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBQMXVLIB-DEV_PACKAGE_NAME libqmxvlib-dev)
set(CPACK_DEBIAN_LIBQMXVLIB-DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_QMXMGR_PACKAGE_NAME qmxmgr)
set(CPACK_DEBIAN_QMXSIM_PACKAGE_NAME qmxsim)
set(CPACK_DEBIAN_QMXSIM_PACKAGE_SECTION devel)
# The maximum-configuration scenario generator is a Python script.
set(CPACK_DEBIAN_QMXSIM_PACKAGE_DEPENDS python3)
set(CPACK_DEBIAN_LIBQMXVLIB1_DESCRIPTION
  "management library of the qmxldd Fibre Channel HBA driver
libqmxvlib.so.1 lets management tools read and change the settings of the
ports of the qmxldd Fibre Channel host bus adapter driver, manage persistent
binding, adapter numbering and multipath, run BIOS, firmware and diagnostic
tools, and isolate failing ports.")
set(CPACK_DEBIAN_LIBQMXVLIB-DEV_DESCRIPTION
  "development files of the qmxldd management library
Headers, pkg-config file, CMake package and manual page for building
management tools against libqmxvlib.so.1.")
set(CPACK_DEBIAN_QMXMGR_DESCRIPTION
  "command-line manager of qmxldd Fibre Channel HBA ports
qmxmgr reads and changes port settings, adapter numbering, binding,
multipath, BIOS and isolation through libqmxvlib, one command group per
family of calls, with JSON output for every read command.")
set(CPACK_DEBIAN_QMXSIM_DESCRIPTION
  "virtual host for developing qmxldd management tools
qmxsim runs a program in a private sandbox with simulated qmxldd adapters:
driver requests, configuration files and adapter tools, without hardware.")

include(CPack)
cpack_add_component(libqmxvlib1)
cpack_add_component(libqmxvlib-dev DEPENDS libqmxvlib1)
cpack_add_component(qmxmgr DEPENDS libqmxvlib1)
cpack_add_component(qmxsim)

# Debian wants a copyright file and a changelog in every package's
# documentation folder.
string(TIMESTAMP QMX_PKG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(pkg libqmxvlib1 libqmxvlib-dev qmxmgr qmxsim)
  set(QMX_PKG ${pkg})
  configure_file(${CMAKE_SOURCE_DIR}/cmake/debian/changelog.in ${CMAKE_BINARY_DIR}/debian/${pkg}/changelog @ONLY)
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/debian/${pkg}/changelog.gz
    COMMAND gzip -9n -f -k ${CMAKE_BINARY_DIR}/debian/${pkg}/changelog
    DEPENDS ${CMAKE_BINARY_DIR}/debian/${pkg}/changelog VERBATIM)
  list(APPEND QMX_PKG_DOCS ${CMAKE_BINARY_DIR}/debian/${pkg}/changelog.gz)
  install(FILES ${CMAKE_SOURCE_DIR}/cmake/debian/copyright ${CMAKE_BINARY_DIR}/debian/${pkg}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${pkg} COMPONENT ${pkg})
endforeach()
add_custom_target(qmx_package_docs ALL DEPENDS ${QMX_PKG_DOCS})

# `cmake --build <dir> --target package-check`: builds the packages and runs
# lintian on them when it is installed.
add_custom_target(package-check
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${CMAKE_BINARY_DIR}/packages
  COMMAND cpack -G DEB -B ${CMAKE_BINARY_DIR}/packages --config ${CMAKE_BINARY_DIR}/CPackConfig.cmake
  COMMAND sh -c "if command -v lintian >/dev/null; then lintian --fail-on error,warning ${CMAKE_BINARY_DIR}/packages/*.deb; else echo 'lintian not installed: skipped'; fi"
  WORKING_DIRECTORY ${CMAKE_BINARY_DIR} VERBATIM)
