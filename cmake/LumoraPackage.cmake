# Debian packages with CPack (scripts/package.sh builds them): one per install
# component. Their dependencies on other packages are computed from the
# binaries by dpkg-shlibdeps; those among themselves are the same version.
set(LUMORA_DEB_VERSION ${PROJECT_VERSION})
set(LUMORA_MAINTAINER "liblumora-api maintainers <maintainers@users.noreply.c-seed-8f5723fc.example>")

# What Debian wants beside the files of every package: its copyright and a
# compressed changelog under /usr/share/doc/PACKAGE.
string(TIMESTAMP LUMORA_CHANGELOG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(LUMORA_PACKAGES runtime liblumora-api1 dev liblumora-api-dev tools lumora-tools)
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

set(CPACK_PACKAGE_NAME liblumora-api)
set(CPACK_PACKAGE_VENDOR "liblumora-api")
set(CPACK_PACKAGE_VERSION ${LUMORA_DEB_VERSION})
set(CPACK_PACKAGE_CONTACT ${LUMORA_MAINTAINER})
# CPack's own default summary: CPackDeb then takes each package's description
# below as it is, its first line the synopsis, instead of putting the
# project's description before it in every package.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${CMAKE_PROJECT_NAME} built using CMake")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
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
    ${PROJECT_BINARY_DIR}/platform)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME liblumora-api1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# The shared libraries' cache is updated by dpkg's ldconfig trigger.
file(WRITE ${LUMORA_DEB_DIR}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${LUMORA_DEB_DIR}/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "client library of the television context service\nApplications and system processes of a television read, write, request and\nsubscribe to the context service's subjects (source, channel, programme,\nsound, usage statistics...) over the D-Bus system bus with it. This package\nholds the shared libraries and the bus policy of the service's name.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME liblumora-api-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "liblumora-api1 (= ${LUMORA_DEB_VERSION}), libglib2.0-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEV_DESCRIPTION
    "client library of the television context service (development files)\nThe headers, the .so links, the pkg-config and CMake package files and the\nAPI reference of liblumora-api, the client library of the television\ncontext service.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME lumora-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "liblumora-api1 (= ${LUMORA_DEB_VERSION}), dbus-daemon")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
    "command-line client and simulator of the television context service\nlumora reads, writes, requests and follows the context service's subjects\nfrom a shell; lumora-sim plays the service on a private bus, with a sample\ntelevision, for developing applications off the set.")

include(CPack)
