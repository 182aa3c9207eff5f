# `cmake --install` puts the library (archive and shared object), the public headers
# under include/vkqvesk/, the CMake package (VKQVeskConfig.cmake), vkqvesk.pc and the
# vkq tool with its manual page. `--target package` makes the Debian packages from the
# same rules: libvkqvesk<major> (shared object), libvkqvesk-dev (headers, archive,
# CMake and pkg-config files) and vkq.
include(CMakePackageConfigHelpers)

# Both kinds are installed: vkq is one of them, the other is made here. Exported, the
# shared object is VKQVesk::vkq and the archive VKQVesk::vkq_static.
if(BUILD_SHARED_LIBS)
  vkq_library(vkq_static STATIC)
  set(vkq_shared_target vkq)
  set(vkq_static_target vkq_static)
else()
  vkq_library(vkq_shared SHARED)
  set(vkq_shared_target vkq_shared)
  set(vkq_static_target vkq)
endif()
set_target_properties(${vkq_shared_target} PROPERTIES EXPORT_NAME vkq)
set_target_properties(${vkq_static_target} PROPERTIES EXPORT_NAME vkq_static)

set(vkq_headers_destination ${CMAKE_INSTALL_INCLUDEDIR}/vkqvesk)
install(TARGETS ${vkq_shared_target} EXPORT VKQVeskTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  FILE_SET HEADERS DESTINATION ${vkq_headers_destination} COMPONENT dev)
install(TARGETS ${vkq_static_target} EXPORT VKQVeskTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  FILE_SET HEADERS DESTINATION ${vkq_headers_destination} COMPONENT dev)

# The CMake package. 0.x versions may break the API with every minor version.
set(vkq_cmake_destination ${CMAKE_INSTALL_LIBDIR}/cmake/VKQVesk)
install(EXPORT VKQVeskTargets NAMESPACE VKQVesk:: DESTINATION ${vkq_cmake_destination} COMPONENT dev)
configure_package_config_file(cmake/VKQVeskConfig.cmake.in ${PROJECT_BINARY_DIR}/VKQVeskConfig.cmake
  INSTALL_DESTINATION ${vkq_cmake_destination})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VKQVeskConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VKQVeskConfig.cmake ${PROJECT_BINARY_DIR}/VKQVeskConfigVersion.cmake
  DESTINATION ${vkq_cmake_destination} COMPONENT dev)

# The pkg-config file finds its prefix from its own folder, so the install can move.
file(RELATIVE_PATH pc_prefix_from_pcfiledir /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" pc_prefix_from_pcfiledir "${pc_prefix_from_pcfiledir}")
configure_file(cmake/vkqvesk.pc.in ${PROJECT_BINARY_DIR}/vkqvesk.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vkqvesk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

if(TARGET vkq_cli)
  install(TARGETS vkq_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
  install(FILES Tools/vkq/vkq.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
endif()

# Debian packages, one per component, each described by the project's summary and a
# line of its own. dpkg-shlibdeps finds the runtime libraries they need; the -dev
# package names the -dev packages its headers and archive need.
set(VKQ_PACKAGE_CONTACT "VKQVesk maintainers <vkqvesk@localhost>" CACHE STRING "Maintainer field of the Debian packages")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vkqvesk)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${VKQ_PACKAGE_CONTACT})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(TARGET vkq_cli)
  list(APPEND CPACK_COMPONENTS_ALL tool)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvkqvesk${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "The shared library, libvkqvesk.so.${PROJECT_VERSION_MAJOR}.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvkqvesk-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "libcurl4-openssl-dev, libssl-dev, libplist-dev, libdeflate-dev, nlohmann-json3-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION
  "Development files: headers, static library, CMake package (find_package(VKQVesk)) and pkg-config file (vkqvesk).")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME vkq)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOL_DESCRIPTION
  "vkq, the command-line client (KXP and JSON requests, resumable downloads) and the reference server.")
include(CPack)
