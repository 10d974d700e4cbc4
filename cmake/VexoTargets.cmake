# How every target of ours is compiled, and how the modules of src/ are declared.

# vexo_options: flags of all our code. Contraction is off so that a build with FMA gives the same bits as one
# without; -ffast-math is never used, since NaN and exact zeros carry meaning here.
add_library(vexo_options INTERFACE)
target_compile_features(vexo_options INTERFACE cxx_std_17)
target_compile_options(vexo_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -ffp-contract=off $<$<CONFIG:Release>:-O3>)
target_include_directories(vexo_options INTERFACE ${PROJECT_SOURCE_DIR}/include)

# OpenCV's headers as system headers, so that its warnings stay its own.
function(vexo_use_opencv target scope)
  target_include_directories(${target} SYSTEM ${scope} ${OpenCV_INCLUDE_DIRS})
endfunction()

# A module of src/: an object library; all of them make vexo_core. USES names the modules whose headers it may
# include; the test arrows.<module> holds that.
function(vexo_add_module module)
  cmake_parse_arguments(ARG "" "" "USES" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${module}/*.cpp)
  if(NOT sources)
    return()
  endif()
  add_library(vexo_${module} OBJECT ${sources})
  set_target_properties(vexo_${module} PROPERTIES
    POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  target_include_directories(vexo_${module} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(vexo_${module} PRIVATE vexo_options Eigen3::Eigen OpenMP::OpenMP_CXX)
  vexo_use_opencv(vexo_${module} PRIVATE)
  set_property(GLOBAL APPEND PROPERTY VEXO_MODULES vexo_${module})
  if(VEXO_BUILD_TESTS)
    add_test(NAME arrows.${module} COMMAND ${CMAKE_COMMAND}
      -DSRC=${CMAKE_CURRENT_SOURCE_DIR} -DMODULE=${module} "-DUSES=${ARG_USES}"
      -P ${PROJECT_SOURCE_DIR}/tests/check_arrows.cmake)
    set_tests_properties(arrows.${module} PROPERTIES LABELS house)
  endif()
endfunction()
