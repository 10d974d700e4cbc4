# The host program, driven as a user drives it. Parts of it that no command line reaches are compiled in.
file(GLOB app_tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*.cpp)
vexo_add_test(app LABEL app
  SOURCES ${app_tests} ${PROJECT_SOURCE_DIR}/apps/vexo/sphere_fit.cpp
    ${PROJECT_SOURCE_DIR}/apps/vexo/disparity_range.cpp
  LINK vexo vexo_sim nlohmann_json::nlohmann_json opencv_core opencv_imgproc opencv_imgcodecs opencv_calib3d)
find_package(nlohmann_json REQUIRED)
target_include_directories(test_app PRIVATE ${PROJECT_SOURCE_DIR}/apps/vexo)
target_compile_definitions(test_app PRIVATE VEXO_PROGRAM="$<TARGET_FILE:vexo_program>")
add_dependencies(test_app vexo_program)
