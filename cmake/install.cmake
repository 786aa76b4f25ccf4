# What `cmake --install` and CPack deliver: the packages security_privacy and varn for find_package, their pkg-config
# files, headers, licence and documents. All of it finds its way from its own place, so the prefix may be moved. The
# example programs install themselves.
include(CMakePackageConfigHelpers)

set(libraries security_privacy)
set(compatibility SameMajorVersion)
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(compatibility SameMinorVersion)
endif()
if(NOT SECURITY_PRIVACY_PLATFORM)
  list(APPEND libraries varn_platform)
endif()

file(RELATIVE_PATH prefix_from_pkgconfig
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefix_from_pkgconfig ${prefix_from_pkgconfig})
file(RELATIVE_PATH libdir_from_prefix ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH includedir_from_prefix ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})

# A platform from elsewhere is found by its name; ours stands beside this package.
if(SECURITY_PRIVACY_PLATFORM)
  set(find_platform "find_dependency(${SECURITY_PRIVACY_PLATFORM})")
  set(SECURITY_PRIVACY_PLATFORM_PKGCONFIG ${SECURITY_PRIVACY_PLATFORM} CACHE STRING
    "Name under which pkg-config knows that platform")
else()
  set(SECURITY_PRIVACY_PLATFORM_PKGCONFIG varn-platform)
  set(find_platform "find_dependency(varn ${PROJECT_VERSION} CONFIG HINTS \${CMAKE_CURRENT_LIST_DIR}/..)")
endif()

# security_privacy_install_package(PACKAGE TARGET PKGCONFIG): a library and what finds it.
function(security_privacy_install_package package target pkgconfig)
  install(TARGETS ${target} EXPORT ${package}-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
  set(folder ${CMAKE_INSTALL_LIBDIR}/cmake/${package})
  install(EXPORT ${package}-targets NAMESPACE ${package}:: DESTINATION ${folder} COMPONENT development)

  set(generated ${PROJECT_BINARY_DIR}/packages)
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/${package}-config.cmake.in
    ${generated}/${package}-config.cmake
    INSTALL_DESTINATION ${folder} NO_SET_AND_CHECK_MACRO)
  write_basic_package_version_file(${generated}/${package}-config-version.cmake COMPATIBILITY ${compatibility})
  install(FILES ${generated}/${package}-config.cmake ${generated}/${package}-config-version.cmake
    DESTINATION ${folder} COMPONENT development)

  configure_file(${PROJECT_SOURCE_DIR}/cmake/${pkgconfig}.pc.in ${generated}/${pkgconfig}.pc @ONLY)
  install(FILES ${generated}/${pkgconfig}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()

security_privacy_install_package(security_privacy security_privacy security_privacy)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/security_privacy
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/generated/security_privacy/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/security_privacy COMPONENT development)
if(NOT SECURITY_PRIVACY_PLATFORM)
  security_privacy_install_package(varn varn_platform varn-platform)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/include/varn
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development FILES_MATCHING PATTERN "*.h")
endif()

install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)

# The documents in the folders that they have in the tree, with what they link to, so that the links lead somewhere.
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md ${PROJECT_SOURCE_DIR}/CONTRIBUTING.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documents)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs ${PROJECT_SOURCE_DIR}/examples
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documents
  PATTERN abi EXCLUDE PATTERN data EXCLUDE PATTERN Doxyfile EXCLUDE PATTERN "*.awk" EXCLUDE)
install(FILES ${PROJECT_SOURCE_DIR}/tools/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR}/tools COMPONENT documents)
install(FILES ${PROJECT_SOURCE_DIR}/bench/results.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/bench COMPONENT documents OPTIONAL)

# Below a prefix of their own, programs and libraries find each other without help from the loader's configuration.
if(NOT CMAKE_INSTALL_PREFIX MATCHES "^/usr/?$")
  set_target_properties(${libraries} PROPERTIES INSTALL_RPATH "$ORIGIN")
  foreach(program security-privacy-cli security-privacy-service)
    if(TARGET ${program})
      file(RELATIVE_PATH libraries_from_program ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
      set_target_properties(${program} PROPERTIES INSTALL_RPATH "$ORIGIN/${libraries_from_program}")
    endif()
  endforeach()
endif()

include(${PROJECT_SOURCE_DIR}/cmake/packages.cmake)
