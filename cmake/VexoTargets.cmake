# How every target of ours is compiled, and how the rooms of the house are declared.

# vexo_options: flags of all our code. Contraction is off so that a build with FMA gives the same bits as one
# without; -ffast-math is never used, since NaN and exact zeros carry meaning here.
add_library(vexo_options INTERFACE)
target_compile_features(vexo_options INTERFACE cxx_std_17)
target_compile_options(vexo_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -ffp-contract=off $<$<CONFIG:Release>:-O3>)
target_include_directories(vexo_options INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)

# OpenCV's headers as system headers, so that its warnings stay its own.
function(vexo_use_opencv target scope)
  target_include_directories(${target} SYSTEM ${scope} ${OpenCV_INCLUDE_DIRS})
endfunction()

# Parsing the headers of OpenCV, the JSON library and the standard is most of a build's time: they are parsed once for
# all targets that are compiled alike. KIND is library, host, program or tests. Every file includes what it uses all the same:
# configure with CMAKE_DISABLE_PRECOMPILE_HEADERS=ON to see that.
set(vexo_headers_of_library <algorithm> <array> <cmath> <filesystem> <functional> <string> <vector>
  <opencv2/core.hpp>)
set(vexo_headers_of_host ${vexo_headers_of_library} <nlohmann/json.hpp>)
set(vexo_headers_of_program ${vexo_headers_of_host} <CLI/CLI.hpp>)
set(vexo_headers_of_tests ${vexo_headers_of_host} <gtest/gtest.h>)

function(vexo_precompile target kind)
  set(first vexo_headers_${kind})
  if(NOT TARGET ${first})
    set(source ${PROJECT_BINARY_DIR}/headers_of_${kind}.cpp)
    file(CONFIGURE OUTPUT ${source} CONTENT "// holds nothing\n")
    add_library(${first} OBJECT ${source})
    target_link_libraries(${first} PRIVATE vexo_options OpenMP::OpenMP_CXX)
    vexo_use_opencv(${first} PRIVATE)
    if(kind STREQUAL tests)
      vexo_compile_quickly(${first})
      target_link_libraries(${first} PRIVATE GTest::gtest)
    elseif(NOT kind STREQUAL program)
      set_target_properties(${first} PROPERTIES
        POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
    endif()
    target_precompile_headers(${first} PRIVATE ${vexo_headers_of_${kind}})
  endif()
  target_precompile_headers(${target} REUSE_FROM ${first})
endfunction()

# The test arrows.<room>: each include of the room's files names the room itself or one of USES. A room is named by its
# folder from the project's root ("base", "host/files"), those of src/ by their own name ("camera"), the installed
# headers by "vexo". A single header can be named, too: "vexo/limits.h".
function(vexo_check_arrows room folder)
  cmake_parse_arguments(ARG "" "" "USES" ${ARGN})
  if(VEXO_BUILD_TESTS)
    string(REPLACE "/" "." name ${room})
    add_test(NAME arrows.${name} COMMAND ${CMAKE_COMMAND}
      -DFOLDER=${folder} -DROOM=${room} "-DUSES=${ARG_USES}" -P ${PROJECT_SOURCE_DIR}/tests/check_arrows.cmake)
    set_tests_properties(arrows.${name} PROPERTIES LABELS house)
  endif()
endfunction()

# vexo_add_module(ROOM FOLDER f [KIND library|host] [USES room ...] [LINK target ...]): a room of the house, all sources of its folder, as
# the static library vexo_<room>. USES names the rooms whose headers it may include: those that are modules are linked.
function(vexo_add_module room)
  cmake_parse_arguments(ARG "" "FOLDER;KIND" "USES;LINK" ${ARGN})
  if(NOT ARG_KIND)
    set(ARG_KIND library)
  endif()
  string(REPLACE "/" "_" name ${room})
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${ARG_FOLDER}/*.cpp
    ${PROJECT_SOURCE_DIR}/${ARG_FOLDER}/*/*.cpp)
  add_library(vexo_${name} STATIC ${sources})
  set_target_properties(vexo_${name} PROPERTIES
    POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  target_link_libraries(vexo_${name} PRIVATE vexo_options PUBLIC OpenMP::OpenMP_CXX ${ARG_LINK})
  vexo_use_opencv(vexo_${name} PRIVATE)
  vexo_precompile(vexo_${name} ${ARG_KIND})
  foreach(used IN LISTS ARG_USES)
    string(REPLACE "/" "_" used ${used})
    if(TARGET vexo_${used})
      target_link_libraries(vexo_${name} PUBLIC vexo_${used})
    endif()
  endforeach()
  vexo_check_arrows(${room} ${PROJECT_SOURCE_DIR}/${ARG_FOLDER} USES ${ARG_USES})
endfunction()
