# What every target of the project has in common, and the three kinds of target that it is made of.

find_package(Threads REQUIRED)
find_package(fmt REQUIRED)
find_package(PkgConfig REQUIRED)

add_library(skelda_flags INTERFACE)
target_compile_options(skelda_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -fno-omit-frame-pointer)
target_include_directories(skelda_flags INTERFACE
  ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(skelda_flags INTERFACE Threads::Threads fmt::fmt)
if(SKELDA_SANITIZE)
  target_compile_options(skelda_flags INTERFACE
    -fsanitize=${SKELDA_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(skelda_flags INTERFACE -fsanitize=${SKELDA_SANITIZE})
endif()

# skelda_component(NAME FOLDER [DEPENDS target ...])
# One folder of the library: every source file in it, recursively, as a static library.
# FOLDER is relative to the source tree's root.
function(skelda_component name folder)
  cmake_parse_arguments(arg "" "" "DEPENDS" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${folder}/*.cpp")
  if(NOT sources)
    add_library(${name} INTERFACE)
    target_link_libraries(${name} INTERFACE skelda_flags ${arg_DEPENDS})
    return()
  endif()
  add_library(${name} STATIC ${sources})
  target_link_libraries(${name} PUBLIC skelda_flags ${arg_DEPENDS})
  set_property(GLOBAL APPEND PROPERTY SKELDA_COMPONENTS ${name})
endfunction()

# skelda_test(NAME FOLDER [DEPENDS target ...])
# One GoogleTest program from every source file of a folder below Tests/, registered case by case.
function(skelda_test name folder)
  cmake_parse_arguments(arg "" "" "DEPENDS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/Tests/${folder}/*.cpp")
  if(NOT sources)
    return()
  endif()
  add_executable(${name} ${sources})
  target_link_libraries(${name} PRIVATE skelda_flags ${arg_DEPENDS}
    GTest::gtest GTest::gmock GTest::gtest_main)
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT 300)
endfunction()
