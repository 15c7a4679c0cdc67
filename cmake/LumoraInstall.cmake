# Installation: libraries, headers, pkg-config files and the CMake package.
set(LUMORA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/LumoraApi)

# On target lumora_platform is only an interface naming the platform's libraries.
install(TARGETS lumora_platform lumora_common lumora_api EXPORT LumoraApiTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/lumora DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT LumoraApiTargets NAMESPACE Lumora:: DESTINATION ${LUMORA_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/LumoraApiConfig.cmake.in
  ${PROJECT_BINARY_DIR}/LumoraApiConfig.cmake INSTALL_DESTINATION ${LUMORA_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/LumoraApiConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/LumoraApiConfig.cmake ${PROJECT_BINARY_DIR}/LumoraApiConfigVersion.cmake
  DESTINATION ${LUMORA_CMAKE_DIR})

# The .pc files find their prefix from where they lie, so that an installed
# tree can be moved (or installed with --prefix) and still be found.
file(RELATIVE_PATH LUMORA_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" LUMORA_PC_TO_PREFIX "${LUMORA_PC_TO_PREFIX}")
foreach(pc lumora-api lumora-common)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
