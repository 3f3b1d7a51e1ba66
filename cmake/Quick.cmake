# What makes a build from nothing quick: precompiled headers, tests that are not optimised, and
# system tests without sanitizers.
# Called once, when all targets are known.
include_guard(GLOBAL)

# The compiler spends half of its time on these headers. No header of ours is among them, and each
# source includes what it needs anyway: clang-tidy reads every source without them.
set(ORMEL_COMMON_HEADERS
  <algorithm> <array> <cerrno> <charconv> <chrono> <cstdio> <cstdlib> <cstring> <functional> <map>
  <memory> <optional>
  <string> <string_view> <vector> <fcntl.h> <unistd.h>)
set(ORMEL_TEST_HEADERS ${ORMEL_COMMON_HEADERS} <filesystem> <fstream> <thread> <gmock/gmock.h>)

function(ormel_targets_below folder result)
  get_property(targets DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
  get_property(folders DIRECTORY ${folder} PROPERTY SUBDIRECTORIES)
  foreach(sub ${folders})
    ormel_targets_below(${sub} more)
    list(APPEND targets ${more})
  endforeach()
  set(${result} ${targets} PARENT_SCOPE)
endfunction()

# ormel_precompile(NAME OPTIONS HEADERS...): a target whose precompiled headers others reuse.
function(ormel_precompile name options)
  file(WRITE ${CMAKE_BINARY_DIR}/precompiled/${name}.cpp.new "")
  file(COPY_FILE ${CMAKE_BINARY_DIR}/precompiled/${name}.cpp.new
    ${CMAKE_BINARY_DIR}/precompiled/${name}.cpp ONLY_IF_DIFFERENT)
  add_library(${name} OBJECT EXCLUDE_FROM_ALL ${CMAKE_BINARY_DIR}/precompiled/${name}.cpp)
  target_compile_options(${name} PRIVATE ${options})
  target_precompile_headers(${name} PRIVATE ${ARGN})
endfunction()

# The targets of everything but the tests and the manual's own tool.
function(ormel_product_targets result)
  set(all "")
  get_property(folders DIRECTORY ${PROJECT_SOURCE_DIR} PROPERTY SUBDIRECTORIES)
  foreach(folder ${folders})
    if(NOT folder MATCHES "^${PROJECT_SOURCE_DIR}/(tests|doc)")
      ormel_targets_below(${folder} targets)
      list(APPEND all ${targets})
    endif()
  endforeach()
  set(${result} ${all} PARENT_SCOPE)
endfunction()

# All that an installation needs, without tests and benchmarks; the demonstration cloud of an
# appliance belongs to it.
function(ormel_add_installed)
  set(needed manual protocols schema)
  ormel_product_targets(targets)
  foreach(target ${targets})
    get_target_property(type ${target} TYPE)
    if(type MATCHES "^(EXECUTABLE|SHARED_LIBRARY|MODULE_LIBRARY)$")
      list(APPEND needed ${target})
    endif()
  endforeach()
  add_custom_target(installed DEPENDS ${needed})
endfunction()

# Each access has a check for null and for alignment, whose tables are most of a program: they take
# a fifth of the compiler's time, and each start goes through them. Left out are those of code that
# deals with texts and records. What reads bytes of strangers keeps them (the form parser, packets,
# the platform's daemons), and the address sanitizer finds a null pointer that is used.
function(ormel_spare_pointer_checks)
  foreach(target ${ARGN})
    if(TARGET ${target})
      target_compile_options(${target} PRIVATE -fno-sanitize=null,alignment)
    endif()
  endforeach()
endfunction()

function(ormel_make_quick)
  # The tests themselves do little work: optimising them takes longer than it saves.
  set(test_options -O0 -U_FORTIFY_SOURCE)
  # These only drive the programs under test, and compile in half the time without sanitizers. The
  # objects of ours that they link keep theirs, and so do the unit tests, which use our headers
  # directly.
  set(driver_options ${test_options})
  if(ORMEL_SANITIZE)
    list(APPEND driver_options -fno-sanitize=all -g0)
  endif()
  if(ORMEL_SANITIZE AND NOT ORMEL_FUZZ)
    ormel_spare_pointer_checks(ormel_config ormel_drivers ormel_options ormel_membership
      ormel_changes ormel_web ormelctl_objects ormel_unit_tests fenro_unit_tests)
  endif()
  set(test_targets ormel_unit_tests fenro_unit_tests)
  set(driver_targets ormel_system_tests ormel_far_agent)
  if(TARGET ormel_system_tests_objects) # then another build compiles them
    set(driver_targets "")
  endif()
  set(tests "")
  foreach(kind test driver)
    foreach(target ${${kind}_targets})
      if(TARGET ${target})
        target_compile_options(${target} PRIVATE ${${kind}_options})
        list(APPEND tests ${target})
      endif()
    endforeach()
  endforeach()
  # A compiler cache finds more without precompiled headers, and clang's are strict about every
  # definition.
  if(CCACHE_PROGRAM OR NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    return()
  endif()
  ormel_precompile(precompiled_library "" ${ORMEL_COMMON_HEADERS})
  ormel_precompile(precompiled_program -fPIE ${ORMEL_COMMON_HEADERS})
  ormel_product_targets(product)
  if(tests)
    ormel_targets_below(${PROJECT_SOURCE_DIR}/tests/fuzz fuzzers)
    list(APPEND product ${fuzzers}) # compiled as programs are
    # The tests found it in a folder of their own, and what is found so is not known here.
    find_package(GTest REQUIRED)
    ormel_precompile(precompiled_tests "-fPIE;${test_options}" ${ORMEL_TEST_HEADERS})
    target_link_libraries(precompiled_tests PRIVATE GTest::gmock)
    set(drivers_reuse precompiled_tests)
    if(ORMEL_SANITIZE AND driver_targets)
      set(drivers_reuse precompiled_drivers)
      ormel_precompile(precompiled_drivers "-fPIE;${driver_options}" ${ORMEL_TEST_HEADERS})
      target_link_libraries(precompiled_drivers PRIVATE GTest::gmock)
    endif()
  endif()
  # Read from a precompiled header, the library's own code no longer counts as the system's: g++ 12
  # then reports joined strings that are right. Builds with a compiler cache keep these warnings.
  set(unfounded -Wno-array-bounds -Wno-restrict -Wno-stringop-overflow -Wno-stringop-overread)
  foreach(target ${product} ${tests})
    get_target_property(type ${target} TYPE)
    if(type MATCHES "^(EXECUTABLE|(STATIC|SHARED|OBJECT)_LIBRARY)$")
      target_compile_options(${target} PRIVATE ${unfounded})
    endif()
    if(target IN_LIST driver_targets)
      target_precompile_headers(${target} REUSE_FROM ${drivers_reuse})
    elseif(target IN_LIST tests)
      target_precompile_headers(${target} REUSE_FROM precompiled_tests)
    elseif(type STREQUAL "EXECUTABLE")
      target_precompile_headers(${target} REUSE_FROM precompiled_program)
    elseif(type MATCHES "^(STATIC|SHARED|OBJECT)_LIBRARY$")
      target_precompile_headers(${target} REUSE_FROM precompiled_library)
    endif()
  endforeach()
endfunction()
