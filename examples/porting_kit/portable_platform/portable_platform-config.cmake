# A platform made of the portable half alone, as a package: no source of the host, and of its headers only the seam's own,
# copied to a place of their own so that nothing else can be included by chance.
get_filename_component(portable_platform_tree "${CMAKE_CURRENT_LIST_DIR}/../../../platform" ABSOLUTE)
set(portable_platform_include "${CMAKE_BINARY_DIR}/portable_platform/include")
file(GLOB portable_platform_headers "${portable_platform_tree}/include/varn/*.h")
file(COPY ${portable_platform_headers} DESTINATION "${portable_platform_include}/varn")
file(GLOB portable_platform_private "${portable_platform_tree}/src/*.h" "${portable_platform_tree}/src/*.cpp")
file(COPY ${portable_platform_private} DESTINATION "${CMAKE_BINARY_DIR}/portable_platform/src")

file(GLOB portable_platform_sources "${CMAKE_BINARY_DIR}/portable_platform/src/*.cpp")
add_library(portable_platform STATIC ${portable_platform_sources})
add_library(varn::platform ALIAS portable_platform)
target_compile_features(portable_platform PUBLIC cxx_std_17)
target_include_directories(portable_platform PUBLIC "${portable_platform_include}"
  PRIVATE "${CMAKE_BINARY_DIR}/portable_platform/src")
set_target_properties(portable_platform PROPERTIES POSITION_INDEPENDENT_CODE ON)
set(portable_platform_FOUND TRUE)
