# A cross build for a Debian architecture with Debian's cross compilers and
# the target's libraries installed as multiarch packages on the build machine
# (libglib2.0-dev:armhf and so on, scripts/cross-deps.sh). Included by
# toolchain-armhf.cmake and toolchain-arm64.cmake, which set
# LUMORA_CROSS_TRIPLET, LUMORA_CROSS_PROCESSOR and LUMORA_CROSS_QEMU first.
#
# The programs built for the target (the tests, lumora, lumora-sim, the
# examples) run on the build machine under qemu-user, named explicitly as
# CMAKE_CROSSCOMPILING_EMULATOR: nothing needs to be registered with
# binfmt_misc. The target's dynamic loader is the one of the multiarch C
# library (libc6:ARCH, at its own path, /lib/ld-linux-armhf.so.3 or
# /lib/ld-linux-aarch64.so.1), which finds the multiarch libraries itself,
# so qemu gets no -L prefix: /usr/TRIPLET holds the cross compiler's own copy
# of the C library, which need not be the same release as libc6:ARCH, and a
# loader of one release with the C library of another fails to start.
# A toolchain file of an SDK with a sysroot (Yocto and others) sets
# CMAKE_SYSROOT and gives qemu that sysroot with -L instead.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${LUMORA_CROSS_PROCESSOR})
set(CMAKE_LIBRARY_ARCHITECTURE ${LUMORA_CROSS_TRIPLET})

set(CMAKE_C_COMPILER ${LUMORA_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${LUMORA_CROSS_TRIPLET}-g++)

# Headers and libraries of the target only; programs (pkg-config, dbus-daemon,
# python3, glib-compile-resources, abidw) of the build machine only. The
# target's files lie in the machine's own tree, under lib/TRIPLET, and in the
# cross compiler's /usr/TRIPLET.
set(CMAKE_FIND_ROOT_PATH /usr/${LUMORA_CROSS_TRIPLET} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads the target's .pc files alone: those of the multiarch
# packages and, first, those of /usr/local (as Debian's TRIPLET-pkg-config
# does), where scripts/cross-deps.sh puts what a package of the target could
# not be installed for.
set(ENV{PKG_CONFIG_LIBDIR}
    "/usr/local/lib/${LUMORA_CROSS_TRIPLET}/pkgconfig:/usr/lib/${LUMORA_CROSS_TRIPLET}/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")

find_program(LUMORA_CROSS_QEMU_EXECUTABLE ${LUMORA_CROSS_QEMU})
if(LUMORA_CROSS_QEMU_EXECUTABLE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${LUMORA_CROSS_QEMU_EXECUTABLE})
else()
  message(STATUS "${LUMORA_CROSS_QEMU} not found (Debian package qemu-user): programs of the target build, but do not run here")
endif()
