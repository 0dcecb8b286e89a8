# The shared library with the exported C API: the eight functions and the
# extensions of OrvaneServerExt.h, nothing else (hidden visibility, a version
# script, and no re-export of the static libraries linked in).
add_library(OrvaneServer SHARED
  ${CMAKE_CURRENT_LIST_DIR}/OrvaneServer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/OrvaneServerExt.cpp
  ${CMAKE_CURRENT_LIST_DIR}/OrvaneServerLog.cpp)
add_library(Orvane::Server ALIAS OrvaneServer)
# The version string the library reports, from project(... VERSION).
configure_file(${CMAKE_CURRENT_LIST_DIR}/LibraryVersion.h.in ${PROJECT_BINARY_DIR}/generated/capi/LibraryVersion.h @ONLY)
target_include_directories(OrvaneServer PRIVATE ${PROJECT_BINARY_DIR}/generated)
target_link_libraries(OrvaneServer PRIVATE OrvaneServerCore PUBLIC OrvaneCommon)
target_include_directories(OrvaneServer PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_options(OrvaneServer PRIVATE
  -Wl,--version-script=${CMAKE_CURRENT_LIST_DIR}/OrvaneServer.map
  -Wl,--exclude-libs,ALL -Wl,--no-undefined)
set_target_properties(OrvaneServer PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
  LINK_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/OrvaneServer.map)
# Installed users see the same names as the build tree's aliases.
set_target_properties(OrvaneServer PROPERTIES EXPORT_NAME Server)
set_target_properties(OrvaneCommon PROPERTIES EXPORT_NAME Common)
orv_target_flags(OrvaneServer)

include(CMakePackageConfigHelpers)
install(TARGETS OrvaneServer OrvaneCommon EXPORT OrvaneServerTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/orvane/OrvaneServer.h ${PROJECT_SOURCE_DIR}/include/orvane/OrvaneCommon.h
  ${PROJECT_SOURCE_DIR}/include/orvane/OrvaneServerExt.h ${PROJECT_SOURCE_DIR}/include/orvane/orvane.hpp
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orvane)
install(EXPORT OrvaneServerTargets NAMESPACE Orvane::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/OrvaneServer)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/OrvaneServerConfig.cmake.in
  ${PROJECT_BINARY_DIR}/OrvaneServerConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/OrvaneServer)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/OrvaneServerConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/OrvaneServerConfig.cmake ${PROJECT_BINARY_DIR}/OrvaneServerConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/OrvaneServer)
# The prefix is found relative to the .pc file (pkg-config's ${pcfiledir}), not
# fixed at configure time: a tree installed with cmake --install --prefix, or
# staged with DESTDIR, must not point its users at CMAKE_INSTALL_PREFIX.
function(orv_configure_pkgconfig output)
  file(RELATIVE_PATH toPrefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" toPrefix "${toPrefix}")
  set(CMAKE_INSTALL_PREFIX "\${pcfiledir}/${toPrefix}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/orvane-server.pc.in ${output} @ONLY)
endfunction()
orv_configure_pkgconfig(${PROJECT_BINARY_DIR}/orvane-server.pc)
install(FILES ${PROJECT_BINARY_DIR}/orvane-server.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
