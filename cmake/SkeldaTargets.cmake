# What every target of the project has in common, and the three kinds of target that it is made of.
# Found here is what the library is made with; each other folder finds what it alone needs.

find_package(Threads REQUIRED)
find_package(fmt REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(SKELDA_PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
pkg_check_modules(SKELDA_UUID REQUIRED IMPORTED_TARGET uuid)
find_package(nlohmann_json REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(CURL REQUIRED)
include(${CMAKE_CURRENT_LIST_DIR}/SkeldaWatchExtension.cmake)

add_library(skelda_flags INTERFACE)
target_compile_options(skelda_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # g++ 12 reports overlaps in the standard library's own copying of strings that are none.
  target_compile_options(skelda_flags INTERFACE -Wno-restrict)
endif()
target_include_directories(skelda_flags INTERFACE
  ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(skelda_flags INTERFACE Threads::Threads fmt::fmt)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  # Else time ends in 2038, and a file at 2 GiB. No public header has a type that this changes.
  target_compile_definitions(skelda_flags INTERFACE _TIME_BITS=64 _FILE_OFFSET_BITS=64)
endif()
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  # What no one calls does not reach the installed library.
  target_compile_options(skelda_flags INTERFACE -ffunction-sections -fdata-sections)
  target_link_options(skelda_flags INTERFACE -Wl,--gc-sections)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # What Platform/Base/Mutex.h says of locks is checked.
  target_compile_options(skelda_flags INTERFACE -Wthread-safety)
endif()
if(SKELDA_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # With what the sanitizers put in between, g++ 12 takes empty optionals for uninitialised ones.
  target_compile_options(skelda_flags INTERFACE -Wno-maybe-uninitialized)
endif()
if(SKELDA_SANITIZE)
  target_compile_definitions(skelda_flags INTERFACE SKELDA_CHECK_QUEUES)
  target_compile_options(skelda_flags INTERFACE -fno-omit-frame-pointer
    -fsanitize=${SKELDA_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(skelda_flags INTERFACE -fsanitize=${SKELDA_SANITIZE})
endif()

# What -Oz leaves on and still takes room for speed: loops made longer to do less in each turn, code
# that runs seldom set apart with tables of its own, the size told to whoever frees a block by it.
# What an operator runs has room, and reads the logs of many.
set(skelda_size)
if(NOT SKELDA_FLEET)
  set(skelda_size -Oz)
endif()
if(NOT SKELDA_FLEET AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(APPEND skelda_size -fno-gcse -fno-ivopts -fno-tree-loop-im -fno-reorder-blocks-and-partition
    -fno-sized-deallocation)
endif()

# Objects hold both: what a linker of all in sight needs, and code as it is. Only the shared library
# takes the former; tests would link for minutes.
set(skelda_lto)
if(SKELDA_LTO AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  set(skelda_lto -flto -ffat-lto-objects)
  target_link_options(skelda_flags INTERFACE
    $<$<NOT:$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>>:-fno-lto>)
  # An archive's index names what the code defines. As the linker's plugin writes it, it also names
  # what was inlined away, and an archive that stands twice in a command is taken in twice.
  set(CMAKE_CXX_ARCHIVE_FINISH "<CMAKE_RANLIB> --plugin /dev/null <TARGET>")
endif()

# The source files below FOLDER, but for those in the folders named behind it.
function(skelda_component_sources result folder)
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${folder}/*.cpp")
  foreach(without IN LISTS ARGN)
    list(FILTER sources EXCLUDE REGEX "^${PROJECT_SOURCE_DIR}/${folder}/${without}/")
  endforeach()
  set(${result} ${sources} PARENT_SCOPE)
endfunction()

# skelda_component(NAME FOLDER [WITHOUT folder ...] [DEPENDS target ...])
# One folder of the library: every source file in it, recursively, as a static library, but for the
# folders in it named WITHOUT, which are components of their own. FOLDER is relative to the source
# tree's root. DEPENDS names every component that its files include, and no other; these arrows run
# in no circle (scripts/lib/floors.py). A release is built for size.
function(skelda_component name folder)
  cmake_parse_arguments(arg "" "" "WITHOUT;DEPENDS" ${ARGN})
  skelda_component_sources(sources "${folder}" ${arg_WITHOUT})
  if(NOT sources)
    add_library(${name} INTERFACE)
    target_link_libraries(${name} INTERFACE skelda_flags ${arg_DEPENDS})
    return()
  endif()
  add_library(${name} STATIC ${sources})
  target_link_libraries(${name} PUBLIC skelda_flags ${arg_DEPENDS})
  target_compile_options(${name} PRIVATE $<$<CONFIG:Release>:${skelda_size}> ${skelda_lto})
  set_property(GLOBAL APPEND PROPERTY SKELDA_COMPONENTS ${name})
endfunction()

# skelda_test(NAME FOLDER [WITHOUT folder ...] [DEPENDS target ...])
# One GoogleTest program from every source file of a folder below Tests/, recursively, but for the
# folders in it named WITHOUT.
function(skelda_test name folder)
  cmake_parse_arguments(arg "" "" "WITHOUT;DEPENDS" ${ARGN})
  skelda_component_sources(sources "Tests/${folder}" ${arg_WITHOUT})
  add_executable(${name} ${sources})
  target_link_libraries(${name} PRIVATE skelda_flags ${arg_DEPENDS}
    GTest::gtest GTest::gmock GTest::gtest_main)
  if(SKELDA_SANITIZE OR CMAKE_CROSSCOMPILING)
    # It is the library that is watched; optimising the tests as well would double the build.
    target_compile_options(${name} PRIVATE -O0)
  endif()
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT 300)
endfunction()

# skelda_fuzz(NAME SOURCE [DEPENDS target ...])
# One libFuzzer program. Its kept inputs are in Fuzz/corpus/NAME.
function(skelda_fuzz name source)
  cmake_parse_arguments(arg "" "" "DEPENDS" ${ARGN})
  add_executable(${name} ${source} ${PROJECT_SOURCE_DIR}/Fuzz/Fuzz.cpp)
  target_link_libraries(${name} PRIVATE skelda_flags ${arg_DEPENDS})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  set_target_properties(${name} PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/fuzzers)
endfunction()

# skelda_benchmark(NAME SOURCE [DEPENDS target ...])
# One Google Benchmark program; scripts/bench runs every program of its output folder.
function(skelda_benchmark name source)
  cmake_parse_arguments(arg "" "" "DEPENDS" ${ARGN})
  add_executable(${name} ${source})
  target_link_libraries(${name} PRIVATE skelda_flags ${arg_DEPENDS} benchmark::benchmark_main)
  set_target_properties(${name} PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/benchmarks)
endfunction()
