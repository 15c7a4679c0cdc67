# Debian packages with CPack (scripts/package.sh builds them): one per install
# component. The runtime package's dependencies are computed from the
# binaries by dpkg-shlibdeps; those among themselves are the same version.
# They follow Debian's multiarch layout: package.sh configures the tree with
# the prefix /usr and the libdir lib/<multiarch> (dpkg-architecture), so that
# the libraries, .pc files and CMake package of two architectures can be
# installed side by side; cmake/LumoraDebFinish.cmake checks that and adds
# what CPack cannot say.
set(LUMORA_DEB_VERSION ${PROJECT_VERSION})
set(LUMORA_MAINTAINER "liblumora-api maintainers <maintainers@users.noreply.c-seed-8f5723fc.example>")

# What Debian wants beside the files of every package: its copyright and a
# compressed changelog under /usr/share/doc/PACKAGE. These files lie outside
# the multiarch libdir, so the packages of every architecture must hold the
# same bytes: the date is SOURCE_DATE_EPOCH when set (package.sh sets it to
# the last commit's), and gzip -n stores no name or time.
string(TIMESTAMP LUMORA_CHANGELOG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(LUMORA_PACKAGES runtime liblumora-api1 dev liblumora-api-dev tools lumora-tools)
set(LUMORA_DEB_COMPONENTS runtime dev tools)
set(LUMORA_DEB_MULTI_ARCH "liblumora-api1=same;liblumora-api-dev=same;lumora-tools=foreign")
# The GObject API's packages; the typelib's only where introspection is built
# (not in cross builds, whose g-ir-scanner cannot run the target's code).
if(LUMORA_BUILD_GLIB)
  list(APPEND LUMORA_PACKAGES glib_runtime liblumora-glib0 glib_dev liblumora-glib-dev)
  list(APPEND LUMORA_DEB_COMPONENTS glib_runtime glib_dev)
  list(APPEND LUMORA_DEB_MULTI_ARCH "liblumora-glib0=same" "liblumora-glib-dev=same")
  if(LUMORA_BUILD_INTROSPECTION)
    list(APPEND LUMORA_PACKAGES gir gir1.2-lumora-1.0)
    list(APPEND LUMORA_DEB_COMPONENTS gir)
    list(APPEND LUMORA_DEB_MULTI_ARCH "gir1.2-lumora-1.0=same")
  endif()
endif()
set(LUMORA_DEB_DIR ${PROJECT_BINARY_DIR}/debian)
find_program(GZIP_EXECUTABLE gzip)
while(LUMORA_PACKAGES)
  list(POP_FRONT LUMORA_PACKAGES component package)
  set(doc ${LUMORA_DEB_DIR}/${package})
  file(MAKE_DIRECTORY ${doc})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/copyright ${doc}/copyright COPYONLY)
  # The packages are native (built from the project's own tree): changelog.gz.
  file(WRITE ${doc}/changelog
       "${package} (${LUMORA_DEB_VERSION}) unstable; urgency=medium\n\n"
       "  * Release ${LUMORA_DEB_VERSION}.\n\n"
       " -- ${LUMORA_MAINTAINER}  ${LUMORA_CHANGELOG_DATE}\n")
  if(GZIP_EXECUTABLE)
    execute_process(COMMAND ${GZIP_EXECUTABLE} -9nf ${doc}/changelog)
    install(FILES ${doc}/copyright ${doc}/changelog.gz
      DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component} EXCLUDE_FROM_ALL)
  endif()
endwhile()
# What lintian is told to accept, and why, in the file itself.
install(FILES ${PROJECT_SOURCE_DIR}/cmake/debian/liblumora-api1.lintian-overrides
  DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME liblumora-api1 COMPONENT runtime EXCLUDE_FROM_ALL)

set(CPACK_PACKAGE_NAME liblumora-api)
set(CPACK_PACKAGE_VENDOR "liblumora-api")
set(CPACK_PACKAGE_VERSION ${LUMORA_DEB_VERSION})
set(CPACK_PACKAGE_CONTACT ${LUMORA_MAINTAINER})
# CPack's own default summary: CPackDeb then takes each package's description
# below as it is, its first line the synopsis, instead of putting the
# project's description before it in every package.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${CMAKE_PROJECT_NAME} built using CMake")
set(CPACK_GENERATOR DEB)
# The packages of a cross build name the architecture it was built for, which
# Debian's dpkg-architecture tells from the target's triplet (CPack would
# take the build machine's); package.sh ARCH names it itself.
set(LUMORA_DEB_ARCHITECTURE "" CACHE STRING "Debian architecture of the packages (empty: this machine's, or the cross target's)")
set(deb_architecture ${LUMORA_DEB_ARCHITECTURE})
if(NOT deb_architecture AND CMAKE_CROSSCOMPILING AND CMAKE_LIBRARY_ARCHITECTURE)
  find_program(LUMORA_DPKG_ARCHITECTURE_PROGRAM dpkg-architecture)
  if(LUMORA_DPKG_ARCHITECTURE_PROGRAM)
    execute_process(COMMAND ${LUMORA_DPKG_ARCHITECTURE_PROGRAM} -t${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
      OUTPUT_VARIABLE deb_architecture OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  endif()
endif()
if(deb_architecture)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${deb_architecture})
endif()
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Staged with DESTDIR and the prefix /usr, so that what is written at install
# time (the .pc files' prefix) names /usr and not the staging folder.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${LUMORA_DEB_COMPONENTS})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${LUMORA_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The tools' and the -dev package's own libraries come from the runtime
# package of this build: shlibdeps finds them there.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src ${PROJECT_BINARY_DIR}/common
    ${PROJECT_BINARY_DIR}/platform ${PROJECT_BINARY_DIR}/glib)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME liblumora-api1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# The shared libraries' cache is updated by dpkg's ldconfig trigger.
file(WRITE ${LUMORA_DEB_DIR}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${LUMORA_DEB_DIR}/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "client library of the television context service\nApplications and system processes of a television read, write, request and\nsubscribe to the context service's subjects (source, channel, programme,\nsound, usage statistics...) over the D-Bus system bus with it. This package\nholds the shared libraries and the bus policy of the service's name.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME liblumora-api-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# What the development files need on a system that has nothing else:
# the headers include <glib.h>, <gio/gio.h> and <json/value.h>; the .pc files
# require gio-2.0, glib-2.0 and jsoncpp, and sqlite3 privately (pkg-config
# wants every module it names present, private ones too); the CMake package
# looks all of them up with pkg-config. The compiler is the user's choice.
set(LUMORA_DEV_DEPENDS "liblumora-api1 (= ${LUMORA_DEB_VERSION}), libglib2.0-dev, libjsoncpp-dev")
if(LUMORA_CONFIG_NEEDS_SQLITE)
  string(APPEND LUMORA_DEV_DEPENDS ", libsqlite3-dev")
endif()
string(APPEND LUMORA_DEV_DEPENDS ", pkg-config")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${LUMORA_DEV_DEPENDS}")
# <lumora/testing/LumoraSimFixture.h> is for an application's GoogleTest tests,
# which start lumora-sim.
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "libgtest-dev, lumora-tools")
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEV_DESCRIPTION
    "client library of the television context service (development files)\nThe headers, the .so links, the pkg-config and CMake package files and the\nAPI reference of liblumora-api, the client library of the television\ncontext service.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME lumora-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
# The Python module lumora.testing is interpreted by python3 and drives the
# simulator through GObject introspection's Gio (python3-gi); pytest only for
# its fixture.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "liblumora-api1 (= ${LUMORA_DEB_VERSION}), dbus-daemon, python3")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "python3-gi")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "python3-pytest")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
    "command-line client and simulator of the television context service\nlumora reads, writes, requests and follows the context service's subjects\nfrom a shell; lumora-sim plays the service on a private bus, with a sample\ntelevision, for developing applications off the set, and runs an\napplication's tests beside it (lumora-sim run, the Python module\nlumora.testing).")

# The GObject API: its library over liblumora-api1 of the same build, its
# development files (with the GIR and the Vala bindings, which need the
# typelib where it is built), and the typelib that Python (PyGObject),
# JavaScript (gjs) and other GObject-introspection users load.
set(CPACK_DEBIAN_GLIB_RUNTIME_PACKAGE_NAME liblumora-glib0)
set(CPACK_DEBIAN_GLIB_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_GLIB_RUNTIME_PACKAGE_DEPENDS "liblumora-api1 (= ${LUMORA_DEB_VERSION})")
set(CPACK_DEBIAN_GLIB_RUNTIME_PACKAGE_CONTROL_EXTRA ${LUMORA_DEB_DIR}/triggers)
set(CPACK_DEBIAN_GLIB_RUNTIME_DESCRIPTION
    "GObject API of the television context service\nliblumora-glib gives the client library of the television context service a\nGObject interface (LumoraClient, LumoraSubscription) in GLib's own\nconventions: GTask, GCancellable, GError and signals in the caller's main\ncontext.")
set(LUMORA_GLIB_DEV_DEPENDS
    "liblumora-glib0 (= ${LUMORA_DEB_VERSION}), liblumora-api-dev (= ${LUMORA_DEB_VERSION}), libglib2.0-dev")
if(LUMORA_BUILD_INTROSPECTION)
  string(APPEND LUMORA_GLIB_DEV_DEPENDS ", gir1.2-lumora-1.0 (= ${LUMORA_DEB_VERSION})")
endif()
set(CPACK_DEBIAN_GLIB_DEV_PACKAGE_NAME liblumora-glib-dev)
set(CPACK_DEBIAN_GLIB_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_GLIB_DEV_PACKAGE_DEPENDS "${LUMORA_GLIB_DEV_DEPENDS}")
set(CPACK_DEBIAN_GLIB_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_GLIB_DEV_DESCRIPTION
    "GObject API of the television context service (development files)\nThe headers, the .so link, the pkg-config and CMake package files, the\nGObject-introspection XML (Lumora-1.0.gir), the Vala bindings and the API\nreference of liblumora-glib.")
set(CPACK_DEBIAN_GIR_PACKAGE_NAME gir1.2-lumora-1.0)
set(CPACK_DEBIAN_GIR_PACKAGE_SECTION introspection)
set(CPACK_DEBIAN_GIR_PACKAGE_DEPENDS "liblumora-glib0 (= ${LUMORA_DEB_VERSION}), gir1.2-glib-2.0")
set(CPACK_DEBIAN_GIR_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_GIR_DESCRIPTION
    "GObject introspection data of the television context service's API\nThe typelib of liblumora-glib (namespace Lumora, version 1.0), through which\nPython (from gi.repository import Lumora), JavaScript (gjs) and other\nlanguages use the client library of the television context service.")

# Multi-Arch: the library and the development files are installed once per
# architecture (everything architecture-specific of theirs is under the
# multiarch libdir, the rest the same for all); the tools serve any
# architecture's programs through the bus and the command line. CPack 3.25 has
# no field for it, nor a way to leave out its own postinst/postrm that call
# ldconfig for libraries under /usr/lib (the triggers file above does that
# job): the finishing step after CPack writes the one and removes the others.
set(CPACK_LUMORA_MULTI_ARCH "${LUMORA_DEB_MULTI_ARCH}")
set(CPACK_LUMORA_LIBDIR ${CMAKE_INSTALL_LIBDIR})
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/LumoraDebFinish.cmake)

include(CPack)
