# Installation: libraries, headers, pkg-config files and the CMake package.
set(LUMORA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/LumoraApi)

# liblumora-api links liblumora-platform privately, and liblumora-platform
# links SQLite: a shared link needs neither named, a static link both. On
# target the platform's own libraries take liblumora-platform's place.
if(LUMORA_TARGET_PLATFORM)
  set(LUMORA_PC_REQUIRES_PRIVATE "")
  set(LUMORA_PC_LIBS_PRIVATE "")
  foreach(lib IN LISTS LUMORA_PLATFORM_LIBRARIES)
    if(lib MATCHES "^-" OR IS_ABSOLUTE "${lib}")
      string(APPEND LUMORA_PC_LIBS_PRIVATE " ${lib}")
    else()
      string(APPEND LUMORA_PC_LIBS_PRIVATE " -l${lib}")
    endif()
  endforeach()
  string(STRIP "${LUMORA_PC_LIBS_PRIVATE}" LUMORA_PC_LIBS_PRIVATE)
  set(LUMORA_CONFIG_NEEDS_SQLITE OFF)
else()
  set(LUMORA_PC_REQUIRES_PRIVATE "sqlite3")
  set(LUMORA_PC_LIBS_PRIVATE "-llumora-platform")
  set(LUMORA_CONFIG_NEEDS_SQLITE ON)
endif()

# On target lumora_platform is only an interface naming the platform's libraries.
# Components, as the Debian packages split them: "runtime" (the shared
# libraries and the bus policy), "dev" (headers, .so links, pkg-config and
# CMake files, the API reference) and "tools" (lumora, lumora-sim and theirs).
install(TARGETS lumora_platform lumora_common lumora_api EXPORT LumoraApiTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/lumora DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

install(EXPORT LumoraApiTargets NAMESPACE Lumora:: DESTINATION ${LUMORA_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/LumoraApiConfig.cmake.in
  ${PROJECT_BINARY_DIR}/LumoraApiConfig.cmake INSTALL_DESTINATION ${LUMORA_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/LumoraApiConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/LumoraApiConfig.cmake ${PROJECT_BINARY_DIR}/LumoraApiConfigVersion.cmake
  DESTINATION ${LUMORA_CMAKE_DIR} COMPONENT dev)

# The .pc files find their prefix from where they lie, so that an installed
# tree can be moved (or installed with --prefix) and still be found.
file(RELATIVE_PATH LUMORA_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" LUMORA_PC_TO_PREFIX "${LUMORA_PC_TO_PREFIX}")
foreach(pc lumora-api lumora-common)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endforeach()
