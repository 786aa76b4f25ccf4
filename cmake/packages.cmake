# Four Debian packages, made with `cpack` from a build below /usr (scripts/check-packages.sh, which also gives the
# compiler Debian's hardening flags): libraries, development, tools, documents.
set(runtime_name libsecurity-privacy${SECURITY_PRIVACY_SOVERSION})
set(development_name libsecurity-privacy-dev)
set(tools_name security-privacy-tools)
set(documents_name security-privacy-doc)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "The security-privacy developers <developers@security-privacy.example>")
set(CPACK_PACKAGE_VENDOR "The security-privacy developers")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_COMPONENTS_ALL runtime development documents)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR} ${PROJECT_BINARY_DIR}/platform)

set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Security-privacy service: shared libraries
 The interface library, for clients and services, and the platform that carries
 its requests from one process of a Linux host to another.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_name})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)

set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Security-privacy service: headers and build files
 What is needed to compile clients and services: headers, a fake service for
 tests, CMake packages and pkg-config files.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${development_name})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime_name} (= ${PROJECT_VERSION})")

set(CPACK_COMPONENT_TOOLS_DESCRIPTION "Security-privacy service: service program and command-line client
 A service that keeps its data in a database, its systemd units (not enabled),
 and a client for the shell.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${tools_name})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${runtime_name} (>= ${PROJECT_VERSION})")

set(CPACK_COMPONENT_DOCUMENTS_DESCRIPTION "Security-privacy service: documents
 Guides for applications, services and ports, the wire protocol, and what is
 promised about security and performance.")
set(CPACK_DEBIAN_DOCUMENTS_PACKAGE_NAME ${documents_name})
set(CPACK_DEBIAN_DOCUMENTS_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOCUMENTS_PACKAGE_ARCHITECTURE all)

if(SECURITY_PRIVACY_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

# What was built against these libraries runs with a newer one of the same shared object version (docs/abi.md). CPack's own
# file has scripts that call ldconfig, where Debian wants a trigger.
set(control ${PROJECT_BINARY_DIR}/packages/control)
file(WRITE ${control}/triggers "activate-noawait ldconfig\n")
file(WRITE ${control}/shlibs "")
foreach(library security_privacy varn_platform)
  file(APPEND ${control}/shlibs
    "lib${library} ${SECURITY_PRIVACY_SOVERSION} ${runtime_name} (>= ${PROJECT_VERSION})\n")
endforeach()
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${control}/triggers ${control}/shlibs)

include(CPack)

# What Debian looks for in places of its own: each package's licence and history, and compressed pages.
if(CMAKE_INSTALL_PREFIX MATCHES "^/usr/?$")
  file(STRINGS ${PROJECT_SOURCE_DIR}/CHANGELOG.md release REGEX "^## \\[${PROJECT_VERSION}\\] - ")
  string(REGEX REPLACE ".* " "" release_date "${release}")
  execute_process(COMMAND date -u -R -d "${release_date}" OUTPUT_VARIABLE release_time OUTPUT_STRIP_TRAILING_WHITESPACE)
  foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    set(folder ${CMAKE_INSTALL_DATAROOTDIR}/doc/${${component}_name})
    install(FILES ${PROJECT_SOURCE_DIR}/cmake/copyright DESTINATION ${folder} COMPONENT ${component})
    set(changelog ${PROJECT_BINARY_DIR}/packages/${component}/changelog)
    file(WRITE ${changelog} "${${component}_name} (${PROJECT_VERSION}) unstable; urgency=medium\n\n"
      "  * Release ${PROJECT_VERSION}; CHANGELOG.md in security-privacy-doc says what changes.\n\n"
      " -- ${CPACK_PACKAGE_CONTACT}  ${release_time}\n")
    execute_process(COMMAND gzip -9nkf ${changelog})
    install(FILES ${changelog}.gz DESTINATION ${folder} COMPONENT ${component})
  endforeach()
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/lintian-overrides RENAME ${runtime_name}
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides COMPONENT runtime)
  install(CODE "file(GLOB_RECURSE pages \"\$ENV{DESTDIR}${CMAKE_INSTALL_FULL_MANDIR}/*.[1-8]\")
    if(pages)
      execute_process(COMMAND gzip -9nf \${pages})
    endif()" COMPONENT tools)
endif()
