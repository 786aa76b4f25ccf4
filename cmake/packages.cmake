# Four Debian packages, made with `cpack` from a build below /usr (scripts/check-packages.sh): libraries, development,
# tools, documents.
set(runtime_name libsecurity-privacy${PROJECT_VERSION_MAJOR})
set(development_name libsecurity-privacy-dev)
set(tools_name security-privacy-tools)
set(documents_name security-privacy-doc)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "The security-privacy developers <security-privacy@localhost>")
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
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS_POLICY =)

set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Security-privacy service: headers and build files
 What is needed to compile clients and services: headers, a fake service for
 tests, CMake packages and pkg-config files.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${development_name})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime_name} (= ${PROJECT_VERSION})")

set(CPACK_COMPONENT_TOOLS_DESCRIPTION "Security-privacy service: example service and command-line client
 A service that answers from a JSON file, its systemd units (not enabled), and
 a client for the shell.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${tools_name})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${runtime_name} (= ${PROJECT_VERSION})")

set(CPACK_COMPONENT_DOCUMENTS_DESCRIPTION "Security-privacy service: documents
 Guides for applications, services and ports, the wire protocol, and what is
 promised about security and performance.")
set(CPACK_DEBIAN_DOCUMENTS_PACKAGE_NAME ${documents_name})
set(CPACK_DEBIAN_DOCUMENTS_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOCUMENTS_PACKAGE_ARCHITECTURE all)

if(SECURITY_PRIVACY_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
include(CPack)

# Debian looks for each package's licence in a place of its own.
if(CMAKE_INSTALL_PREFIX MATCHES "^/usr/?$")
  foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    install(FILES ${PROJECT_SOURCE_DIR}/LICENSE RENAME copyright
      DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${${component}_name} COMPONENT ${component})
  endforeach()
endif()
