# How a test is built and registered; for tests/ and fuzz/.
find_package(GTest REQUIRED)
include(GoogleTest)

# The two functions in which a record stays undestroyed on one path, for the leak checker.
set(leaks_on_purpose "LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/support/lsan.supp:print_suppressions=0")

# add_room_test(NAME LABEL label SOURCES file... [LIBRARIES library...] [INCLUDES folder...] [DEFINITIONS definition...]
#   [ALONE]): one executable, each of its tests by itself; with ALONE no other test runs beside one of these.
function(add_room_test name)
  cmake_parse_arguments(PARSE_ARGV 1 room "ALONE" "LABEL" "SOURCES;LIBRARIES;INCLUDES;DEFINITIONS")
  add_executable(${name} ${room_SOURCES})
  target_compile_features(${name} PRIVATE cxx_std_17)
  target_compile_definitions(${name} PRIVATE ${room_DEFINITIONS})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests ${room_INCLUDES})
  target_link_libraries(${name} PRIVATE ${room_LIBRARIES} GTest::gmock GTest::gtest_main)
  security_privacy_warnings(${name})
  # Their own code need not be fast: optimising it is half the time of a build.
  set(level -O1)
  if(SECURITY_PRIVACY_SANITIZE)
    set(level -O0)
  endif()
  target_compile_options(${name} PRIVATE $<$<CONFIG:RelWithDebInfo>:-g1> $<$<CONFIG:RelWithDebInfo>:${level}>)
  gtest_discover_tests(${name} NO_PRETTY_VALUES DISCOVERY_TIMEOUT 60
    PROPERTIES LABELS ${room_LABEL} TIMEOUT 120 RUN_SERIAL ${room_ALONE} ENVIRONMENT "${leaks_on_purpose}")
endfunction()
