# keldwick_tests makes one program of the tests of one or more folders. Calls that its tests make fail are named one a line
# in tests/FOLDER/wrapped-calls.txt and linked with --wrap (see tests/support/fail_call.h).
find_package(GTest REQUIRED)
include(GoogleTest)

# Under sanitizers the tests' own code goes without the checks that cost most to compile: the code under test keeps all of
# them, and an invalid pointer ends a test either way.
set(test_options "")
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize=.*undefined")
  set(test_options -fno-sanitize=null,alignment,vptr,object-size)
endif()

# keldwick_tests(PREFIX LABEL label [FOLDERS folder...] LIBRARIES library...): program tests_PREFIX (slashes as underscores),
# whose tests CTest names PREFIX/SUITE.NAME. FOLDERS below tests/; PREFIX alone when there are none.
function(keldwick_tests prefix)
  cmake_parse_arguments(arg "" "LABEL" "FOLDERS;LIBRARIES" ${ARGN})
  if(NOT arg_FOLDERS)
    set(arg_FOLDERS ${prefix})
  endif()
  set(sources "")
  set(calls "")
  foreach(folder ${arg_FOLDERS})
    file(GLOB found CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/${folder}/*.cpp)
    list(APPEND sources ${found})
    set(file ${PROJECT_SOURCE_DIR}/tests/${folder}/wrapped-calls.txt)
    if(EXISTS ${file})
      set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
      file(STRINGS ${file} wrapped)
      list(APPEND calls ${wrapped})
    endif()
  endforeach()
  if(NOT sources)
    return()
  endif()
  list(REMOVE_DUPLICATES calls)
  list(TRANSFORM calls PREPEND "-Wl,--wrap=")
  file(GLOB support CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/support/*.cpp)
  string(REPLACE "/" "_" name tests_${prefix})
  add_executable(${name} ${sources} ${support})
  target_compile_options(${name} PRIVATE ${test_options})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/src)
  target_include_directories(${name} SYSTEM PRIVATE ${PROJECT_SOURCE_DIR}/win32/include)
  target_link_options(${name} PRIVATE ${calls})
  target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} GTest::gtest GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} TEST_PREFIX ${prefix}/ DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60 PROPERTIES LABELS "${arg_LABEL}" TIMEOUT 120)
endfunction()

keldwick_tests(win32 LABEL layer FOLDERS win32 win32/interfaces LIBRARIES agent_service)
# The agent, in parts and assembled under a moved clock.
set_source_files_properties(${PROJECT_SOURCE_DIR}/tests/loop/loop_test.cpp PROPERTIES
  COMPILE_DEFINITIONS RECORDED_FOLDER="${PROJECT_SOURCE_DIR}/tests/loop/recorded")
keldwick_tests(agent LABEL agent FOLDERS ${agent_folders} loop LIBRARIES tool_feed server_protocol)
keldwick_tests(tools LABEL tools FOLDERS keldwickctl keldwick-server LIBRARIES ctl_commands server_parts)

# System tests: tests/system/test_*.py, Python's unittest, against the built programs.
file(GLOB system_tests CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/system/test_*.py)
find_package(Python3 COMPONENTS Interpreter)
foreach(test ${system_tests})
  get_filename_component(name ${test} NAME_WE)
  add_test(NAME system/${name} COMMAND Python3::Interpreter -m unittest -v ${name}
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}/tests/system)
  set_tests_properties(system/${name} PROPERTIES LABELS system TIMEOUT 400
    ENVIRONMENT "KELDWICK_BIN=${CMAKE_RUNTIME_OUTPUT_DIRECTORY};PYTHONDONTWRITEBYTECODE=1")
endforeach()

# The clock of a program under wine.
add_library(moved_clock MODULE ${PROJECT_SOURCE_DIR}/tests/windows/moved_clock.cpp)
set_target_properties(moved_clock PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
target_compile_options(moved_clock PRIVATE -fno-sanitize=all)
target_link_options(moved_clock PRIVATE -fno-sanitize=all)

# A minute of every kind of trouble with a fixed seed; `tests/system/soak.py --help` for more of it.
add_test(NAME system/soak COMMAND Python3::Interpreter -m unittest -v soak
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}/tests/system)
set_tests_properties(system/soak PROPERTIES LABELS system TIMEOUT 600
  ENVIRONMENT "KELDWICK_BIN=${CMAKE_RUNTIME_OUTPUT_DIRECTORY};PYTHONDONTWRITEBYTECODE=1")
# The longest begin first, so that none is left to run alone.
set_tests_properties(system/test_domain_controller system/test_package PROPERTIES COST 900)
set_tests_properties(system/soak system/test_systemd PROPERTIES COST 800)

# The programs with each call of tests/faults/calls.txt wrapped, so that tests/faults/run can count them and make them fail.
# The wrappers fit x86-64.
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
  set(calls ${PROJECT_SOURCE_DIR}/tests/faults/calls.txt)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${calls})
  file(STRINGS ${calls} lines REGEX "^[A-Za-z_]")
  list(TRANSFORM lines REPLACE " .*" "")
  list(REMOVE_DUPLICATES lines)
  list(FILTER lines EXCLUDE REGEX "^new")  # replaced in the source, as are the calls that know the clock
  set(by_hand main poll ppoll timerfd_settime clock_gettime _ZNSt6chrono3_V212steady_clock3nowEv)
  set(wrappers "")
  foreach(call ${lines})
    if(NOT call IN_LIST by_hand)
      string(APPEND wrappers "FAULTS_CALL(${call})\n")
    endif()
  endforeach()
  file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/faults/wrapped_calls.inc CONTENT "${wrappers}")
  list(APPEND lines ${by_hand})
  list(REMOVE_DUPLICATES lines)
  list(TRANSFORM lines PREPEND "-Wl,--wrap=")
  foreach(program keldwick keldwickctl)
    get_target_property(libraries ${program} LINK_LIBRARIES)
    add_executable(${program}_faults $<TARGET_OBJECTS:${program}> tests/faults/fail_calls.cpp)
    target_include_directories(${program}_faults PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}/faults)
    target_include_directories(${program}_faults SYSTEM PRIVATE ${PROJECT_SOURCE_DIR}/win32/include)
    target_link_options(${program}_faults PRIVATE ${lines})
    target_link_libraries(${program}_faults PRIVATE ${libraries})
  endforeach()
  add_test(NAME faults COMMAND Python3::Interpreter ${PROJECT_SOURCE_DIR}/tests/faults/run --jobs 3)
  set_tests_properties(faults PROPERTIES LABELS faults TIMEOUT 600 COST 1000
    ENVIRONMENT "KELDWICK_BIN=${CMAKE_RUNTIME_OUTPUT_DIRECTORY};PYTHONDONTWRITEBYTECODE=1")
endif()
