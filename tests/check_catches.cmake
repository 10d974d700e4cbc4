# Fails when a file below the programs has a catch of its own: base/boundary.h is the one place where
# an exception becomes a return value.
cmake_minimum_required(VERSION 3.25)
file(GLOB_RECURSE files ${ROOT}/src/*.h ${ROOT}/src/*.cpp ${ROOT}/base/*.h ${ROOT}/base/*.cpp ${ROOT}/patterns/*.cpp ${ROOT}/host/*.h
  ${ROOT}/host/*.cpp ${ROOT}/sim/*.h ${ROOT}/sim/*.cpp)
list(REMOVE_ITEM files ${ROOT}/base/boundary.h)
foreach(file IN LISTS files)
  file(STRINGS ${file} catches REGEX "catch \\(")
  if(catches)
    message(SEND_ERROR "${file}: ${catches}: use a template of base/boundary.h")
  endif()
endforeach()
