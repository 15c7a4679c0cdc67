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
if(LUMORA_BUILD_GLIB)
  install(EXPORT LumoraGlibTargets NAMESPACE Lumora:: DESTINATION ${LUMORA_CMAKE_DIR} COMPONENT glib_dev)
endif()
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/LumoraApiConfig.cmake.in
  ${PROJECT_BINARY_DIR}/LumoraApiConfig.cmake INSTALL_DESTINATION ${LUMORA_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/LumoraApiConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/LumoraApiConfig.cmake ${PROJECT_BINARY_DIR}/LumoraApiConfigVersion.cmake
  DESTINATION ${LUMORA_CMAKE_DIR} COMPONENT dev)

# The .pc files name the prefix the tree is installed to, written when it is
# installed (cmake --install --prefix P, or /usr for the Debian packages),
# so that they give plain paths (-I/usr/include, the multiarch libdir) that
# pkg-config drops as system paths and prefixes with PKG_CONFIG_SYSROOT_DIR
# when cross-compiling. Everything else in them is filled in now; each install
# writes its own copy straight to its destination (two installs of the same
# build tree may run at once, as the tests do).
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(LUMORA_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  set(LUMORA_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(LUMORA_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(LUMORA_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
# The build tree keeps its own copy of the install-time step.
configure_file(${PROJECT_SOURCE_DIR}/cmake/LumoraInstallPc.cmake ${PROJECT_BINARY_DIR}/pkgconfig/LumoraInstallPc.cmake
  COPYONLY)
set(lumora_pc_files lumora-api lumora-common)
if(LUMORA_BUILD_GLIB)
  list(APPEND lumora_pc_files lumora-glib)
endif()
foreach(pc IN LISTS lumora_pc_files)
  set(component dev)
  if(pc STREQUAL "lumora-glib")
    set(component glib_dev)
  endif()
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/pkgconfig/${pc}.pc.body @ONLY)
  install(CODE "set(LUMORA_PC_BODY \"${PROJECT_BINARY_DIR}/pkgconfig/${pc}.pc.body\")
    set(LUMORA_PC_NAME ${pc}.pc)
    set(LUMORA_PC_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
    include(\"${PROJECT_BINARY_DIR}/pkgconfig/LumoraInstallPc.cmake\")" COMPONENT ${component})
endforeach()
