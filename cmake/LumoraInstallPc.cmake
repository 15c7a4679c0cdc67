# Runs at install time (install(CODE) in LumoraInstall.cmake): writes one .pc
# file, LUMORA_PC_NAME, into LUMORA_PC_LIBDIR/pkgconfig under the prefix of
# this install, its first line the prefix and the rest LUMORA_PC_BODY as
# configured. Written straight to its destination, under DESTDIR when one is
# set (CPack stages the packages that way, with the prefix /usr).
get_filename_component(lumora_prefix "${CMAKE_INSTALL_PREFIX}" ABSOLUTE)
if(IS_ABSOLUTE "${LUMORA_PC_LIBDIR}")
  set(lumora_pc_dir "${LUMORA_PC_LIBDIR}/pkgconfig")
else()
  set(lumora_pc_dir "${lumora_prefix}/${LUMORA_PC_LIBDIR}/pkgconfig")
endif()
set(lumora_pc "$ENV{DESTDIR}${lumora_pc_dir}/${LUMORA_PC_NAME}")
file(READ "${LUMORA_PC_BODY}" lumora_pc_body)
message(STATUS "Installing: ${lumora_pc}")
file(WRITE "${lumora_pc}" "prefix=${lumora_prefix}\n${lumora_pc_body}")
list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${lumora_pc}")
