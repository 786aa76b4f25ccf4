# The portable half of the platform: what a port builds together with sources of its own, see examples/port.
set(VARN_PORTABLE_SOURCES "")
foreach(source broker_registration fork_handler log parcel remote_object system_ability_manager)
  list(APPEND VARN_PORTABLE_SOURCES ${CMAKE_CURRENT_LIST_DIR}/src/${source}.cpp)
endforeach()
