# Install rules and Debian packages (cpack).
#
# cmake --install puts the library with its SONAME links, the public header, a
# pkg-config file and, in Qt 5 builds, a CMake package config into the usual
# places (a Debian multiarch libdir). cpack makes the .deb packages:
#   Qt 5 build:  libvorn-kq71-ap2, libvorn-kq71-ap-dev, kq71-tools
#   Qt 4 build:  libvorn-kq71-ap2-qt4, libvorn-kq71-ap-qt4-dev (no dependency
#                on Qt: a panel brings its own Qt 4.8 QtCore)

include(CMakePackageConfigHelpers)

set(KQ71_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vorn_kq71_ap)

target_include_directories(vorn_kq71_ap INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
# The entry points take Qt types: whoever builds against the header needs QtCore.
target_link_libraries(vorn_kq71_ap INTERFACE ${KQ71_QT_CORE})

if(KQ71_QT STREQUAL "5")
  install(TARGETS vorn_kq71_ap EXPORT vorn_kq71_apTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT dev)
  install(EXPORT vorn_kq71_apTargets NAMESPACE vorn_kq71_ap:: DESTINATION ${KQ71_CMAKE_DIR} COMPONENT dev)
  configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/vorn_kq71_apConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/vorn_kq71_apConfig.cmake INSTALL_DESTINATION ${KQ71_CMAKE_DIR})
  write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/vorn_kq71_apConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vorn_kq71_apConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/vorn_kq71_apConfigVersion.cmake DESTINATION ${KQ71_CMAKE_DIR} COMPONENT dev)
  set(KQ71_PC_REQUIRES "Qt5Core >= 5.6")
else()
  # A Qt 4 QtCore has no CMake package of its own to depend on: pkg-config only.
  install(TARGETS vorn_kq71_ap
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT dev)
  set(KQ71_PC_REQUIRES "QtCore >= 4.8")
endif()
install(FILES ${PROJECT_SOURCE_DIR}/include/vorn_kq71_ap.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

# The pkg-config file finds its prefix from where it lies, so that it holds
# wherever cpack or --prefix put it, and in an unpacked sysroot.
file(RELATIVE_PATH KQ71_PC_TO_PREFIX /p/${CMAKE_INSTALL_LIBDIR}/pkgconfig /p)
string(REGEX REPLACE "/$" "" KQ71_PC_TO_PREFIX "${KQ71_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/vorn_kq71_ap.pc.in ${CMAKE_CURRENT_BINARY_DIR}/vorn_kq71_ap.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vorn_kq71_ap.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# --- Debian packages -----------------------------------------------------------
set(KQ71_PACKAGE_MAINTAINER "vorn_kq71_ap developers" CACHE STRING "Maintainer field of the .deb packages")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vorn-kq71-ap)
set(CPACK_PACKAGE_VENDOR vorn)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Modbus RTU driver for KQ71 PLCs, loaded by HMI panel runtimes")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
# Component dependencies (dev and tools on library) become package Depends.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${KQ71_PACKAGE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
endif()

set(KQ71_DEB_SUFFIX "")
if(KQ71_QT STREQUAL "4")
  set(KQ71_DEB_SUFFIX -qt4)
endif()
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libvorn-kq71-ap${KQ71_SOVERSION}${KQ71_DEB_SUFFIX})
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvorn-kq71-ap${KQ71_DEB_SUFFIX}-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "the driver library, as a panel runtime loads it")
set(CPACK_COMPONENT_DEV_DESCRIPTION "header, pkg-config file and CMake package for building a runtime against the driver")
set(CPACK_COMPONENT_DEV_DEPENDS library)
if(KQ71_QT STREQUAL "5")
  set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "qtbase5-dev")
  # dpkg-shlibdeps finds the library's own (Qt 5 Core, libstdc++); a cross
  # build has no dpkg data for its Qt 4.
  set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
else()
  set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "the driver library built against Qt 4.8.7; the panel provides Qt 4.8 QtCore")
endif()
if(TARGET kq71)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kq71-tools)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION electronics)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
  set(CPACK_COMPONENT_TOOLS_DESCRIPTION "kq71 command line and kq71-sim PLC simulator")
  set(CPACK_COMPONENT_TOOLS_DEPENDS library)
  set(CPACK_COMPONENTS_ALL library dev tools)
else()
  set(CPACK_COMPONENTS_ALL library dev)
endif()
include(CPack)
