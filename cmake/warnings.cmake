# What every target of this project is built with and no consumer inherits. Warnings are errors only when CI says so
# (CMAKE_COMPILE_WARNING_AS_ERROR is newer than our CMake), so that a newer compiler does not stop a user's build.
option(SECURITY_PRIVACY_WARNINGS_AS_ERRORS "Treat warnings as errors" OFF)
set(SECURITY_PRIVACY_SANITIZE "" CACHE STRING "Sanitizers for every target of the project, as -fsanitize= takes them")

function(security_privacy_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor)
  if(SECURITY_PRIVACY_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(SECURITY_PRIVACY_SANITIZE)
    target_compile_options(${target} PRIVATE
      -fsanitize=${SECURITY_PRIVACY_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=${SECURITY_PRIVACY_SANITIZE})
  endif()
endfunction()

# As long as the major version is 0, a new minor version may break programs (docs/abi.md).
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(SECURITY_PRIVACY_SOVERSION 0.${PROJECT_VERSION_MINOR})
else()
  set(SECURITY_PRIVACY_SOVERSION ${PROJECT_VERSION_MAJOR})
endif()

# For the two libraries: hidden visibility, and no unique symbols, which would keep a shared library from ever being
# unloaded.
function(private_library_options target)
  security_privacy_warnings(${target})
  set_target_properties(${target} PROPERTIES
    CXX_EXTENSIONS OFF
    DEFINE_SYMBOL ""
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON
    LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/exports.map
    VERSION ${PROJECT_VERSION}
    SOVERSION ${SECURITY_PRIVACY_SOVERSION})
  target_link_options(${target} PRIVATE LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -fno-gnu-unique)
  elseif(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
endfunction()
