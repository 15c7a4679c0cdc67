# Runs after CPack has built the Debian packages (CPACK_POST_BUILD_SCRIPTS),
# on each of CPACK_PACKAGE_FILES, to say what CPack 3.25 cannot:
#  - the Multi-Arch field of each package (CPACK_LUMORA_MULTI_ARCH, a list of
#    PACKAGE=VALUE);
#  - no postinst/postrm of CPack's that only call ldconfig: the library
#    package's triggers file (activate-noawait ldconfig) has dpkg run it once,
#    after all the packages of one run are unpacked;
# and checks that a package installed once per architecture keeps its
# libraries, .pc files and CMake package under the multiarch libdir of its own
# architecture (lib/<DEB_HOST_MULTIARCH> of its Architecture field), where the
# build's libdir (CPACK_LUMORA_LIBDIR) must also be. Any surprise fails.
find_program(LUMORA_DPKG_DEB dpkg-deb REQUIRED)
find_program(LUMORA_DPKG_ARCHITECTURE dpkg-architecture REQUIRED)

function(lumora_deb_fail package message)
  message(FATAL_ERROR "Debian package ${package}: ${message}")
endfunction()

# The maintainer scripts CPack writes for a library under /usr/lib, and
# nothing else: a script with more in it is not removed.
function(lumora_is_ldconfig_script file action result)
  file(READ "${file}" text)
  string(REGEX REPLACE "[ \t\n]+" " " text "${text}")
  string(STRIP "${text}" text)
  if(text STREQUAL "#!/bin/sh set -e if [ \"$1\" = \"${action}\" ]; then ldconfig fi")
    set(${result} TRUE PARENT_SCOPE)
  else()
    set(${result} FALSE PARENT_SCOPE)
  endif()
endfunction()

# The package's Installed-Size as dpkg-gencontrol counts it: each regular
# file its size in KiB rounded up, every other entry (folder, link) 1. CPack
# 3.25's own figure is not always the package's (it gives liblumora-api1 the
# size of lumora-tools), so it is counted again.
function(lumora_installed_size tree result)
  # Links are counted, never followed.
  cmake_policy(SET CMP0009 NEW)
  file(GLOB_RECURSE entries LIST_DIRECTORIES true RELATIVE "${tree}" "${tree}/*")
  set(kib 0)
  foreach(entry IN LISTS entries)
    if(entry MATCHES "^DEBIAN(/|$)")
      continue()
    endif()
    set(entry "${tree}/${entry}")
    if(IS_SYMLINK "${entry}" OR IS_DIRECTORY "${entry}")
      math(EXPR kib "${kib} + 1")
    else()
      file(SIZE "${entry}" bytes)
      math(EXPR kib "${kib} + (${bytes} + 1023) / 1024")
    endif()
  endforeach()
  set(${result} ${kib} PARENT_SCOPE)
endfunction()

foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  if(NOT deb MATCHES "\\.deb$")
    continue()
  endif()
  get_filename_component(work "${deb}" DIRECTORY)
  set(tree "${work}/lumora-finish")
  file(REMOVE_RECURSE "${tree}")
  execute_process(COMMAND ${LUMORA_DPKG_DEB} --raw-extract "${deb}" "${tree}" COMMAND_ERROR_IS_FATAL ANY)
  file(STRINGS "${tree}/DEBIAN/control" package REGEX "^Package: ")
  string(REGEX REPLACE "^Package: " "" package "${package}")
  file(STRINGS "${tree}/DEBIAN/control" architecture REGEX "^Architecture: ")
  string(REGEX REPLACE "^Architecture: " "" architecture "${architecture}")

  set(multi_arch "")
  foreach(entry IN LISTS CPACK_LUMORA_MULTI_ARCH)
    if(entry MATCHES "^${package}=(.+)$")
      set(multi_arch "${CMAKE_MATCH_1}")
    endif()
  endforeach()
  if(NOT multi_arch MATCHES "^(same|foreign)$")
    lumora_deb_fail(${package} "no Multi-Arch value in CPACK_LUMORA_MULTI_ARCH")
  endif()

  if(multi_arch STREQUAL "same")
    execute_process(COMMAND ${LUMORA_DPKG_ARCHITECTURE} -A "${architecture}" -qDEB_HOST_MULTIARCH
      OUTPUT_VARIABLE triplet OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET COMMAND_ERROR_IS_FATAL ANY)
    if(NOT CPACK_LUMORA_LIBDIR STREQUAL "lib/${triplet}")
      lumora_deb_fail(${package} "built with the libdir '${CPACK_LUMORA_LIBDIR}', not lib/${triplet} as \
${architecture} wants (configure with -DCMAKE_INSTALL_PREFIX=/usr \
-DCMAKE_INSTALL_LIBDIR=lib/${triplet}, as scripts/package.sh does)")
    endif()
    file(GLOB_RECURSE files LIST_DIRECTORIES false RELATIVE "${tree}" "${tree}/usr/lib/*" "${tree}/lib/*")
    foreach(file IN LISTS files)
      if(NOT file MATCHES "^usr/lib/${triplet}/")
        lumora_deb_fail(${package} "/${file} is outside /usr/lib/${triplet}, yet two architectures' \
packages would both hold it")
      endif()
    endforeach()
  endif()

  file(READ "${tree}/DEBIAN/control" control)
  if(control MATCHES "Multi-Arch:")
    lumora_deb_fail(${package} "CPack wrote a Multi-Arch field already; set it there instead")
  endif()
  string(REGEX REPLACE "(Architecture: [^\n]*\n)" "\\1Multi-Arch: ${multi_arch}\n" control "${control}")
  lumora_installed_size("${tree}" installed_size)
  string(REGEX REPLACE "\nInstalled-Size: [0-9]+" "\nInstalled-Size: ${installed_size}" control "${control}")
  if(NOT control MATCHES "\nInstalled-Size: ${installed_size}\n")
    lumora_deb_fail(${package} "the Installed-Size field could not be set in its control file")
  endif()
  if(NOT control MATCHES "\nMulti-Arch: ${multi_arch}\n")
    lumora_deb_fail(${package} "the Multi-Arch field could not be added to its control file")
  endif()
  file(WRITE "${tree}/DEBIAN/control" "${control}")

  set(scripts postinst postrm)
  set(actions configure remove)
  foreach(script action IN ZIP_LISTS scripts actions)
    if(EXISTS "${tree}/DEBIAN/${script}")
      lumora_is_ldconfig_script("${tree}/DEBIAN/${script}" ${action} only_ldconfig)
      if(NOT only_ldconfig)
        lumora_deb_fail(${package} "its ${script} does more than call ldconfig; look at it before removing it")
      endif()
      if(NOT EXISTS "${tree}/DEBIAN/triggers")
        lumora_deb_fail(${package} "its ${script} calls ldconfig and it has no ldconfig trigger instead")
      endif()
      file(STRINGS "${tree}/DEBIAN/triggers" trigger REGEX "^activate-noawait ldconfig$")
      if(NOT trigger)
        lumora_deb_fail(${package} "its triggers file does not activate ldconfig")
      endif()
      file(REMOVE "${tree}/DEBIAN/${script}")
    endif()
  endforeach()

  execute_process(COMMAND ${LUMORA_DPKG_DEB} --root-owner-group -Zxz --build "${tree}" "${deb}"
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE "${tree}")
  message(STATUS "${package}: Multi-Arch: ${multi_arch}")
endforeach()
