# The host program, driven as a user drives it. Parts of the host rooms that no command line reaches
# are called.
file(GLOB app_tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*.cpp)
vexo_add_test(app LABEL app
  SOURCES ${app_tests} LINK vexo_host_reports vexo_sim)
target_compile_definitions(test_app PRIVATE VEXO_PROGRAM="$<TARGET_FILE:vexo_program>")
add_dependencies(test_app vexo_program)
