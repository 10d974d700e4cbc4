# The host program, driven as a user drives it.
file(GLOB app_tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*.cpp)
vexo_add_test(app LABEL app
  SOURCES ${app_tests} LINK vexo vexo_patterns nlohmann_json::nlohmann_json opencv_core opencv_imgproc opencv_imgcodecs opencv_calib3d)
target_compile_definitions(test_app PRIVATE VEXO_PROGRAM="$<TARGET_FILE:vexo_program>")
add_dependencies(test_app vexo_program)
