# One test program a folder: tests/FOLDER/*.cpp becomes tests_FOLDER (slashes as underscores). Calls that its tests make
# fail are named one a line in tests/FOLDER/wrapped-calls.txt and linked with --wrap (see tests/support/fail_call.h).
find_package(GTest REQUIRED)
include(GoogleTest)

# keldwick_tests(FOLDER [LABEL label] LIBRARIES...)
function(keldwick_tests folder)
  cmake_parse_arguments(arg "" "LABEL" "" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/${folder}/*.cpp)
  if(NOT sources)
    return()
  endif()
  file(GLOB support CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/support/*.cpp)
  string(REPLACE "/" "_" name tests_${folder})
  add_executable(${name} ${sources} ${support})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/src)
  target_include_directories(${name} SYSTEM PRIVATE ${PROJECT_SOURCE_DIR}/win32/include)
  set(calls ${PROJECT_SOURCE_DIR}/tests/${folder}/wrapped-calls.txt)
  if(EXISTS ${calls})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${calls})
    file(STRINGS ${calls} wrapped)
    foreach(call ${wrapped})
      target_link_options(${name} PRIVATE -Wl,--wrap=${call})
    endforeach()
  endif()
  target_link_libraries(${name} PRIVATE ${arg_UNPARSED_ARGUMENTS} GTest::gtest GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} TEST_PREFIX ${folder}/ DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60 PROPERTIES LABELS "${arg_LABEL}" TIMEOUT 120)
endfunction()

foreach(folder ${layer_folders})
  keldwick_tests(win32/${folder} LABEL layer keldwick_all)
endforeach()
foreach(folder ${agent_folders})
  keldwick_tests(${folder} LABEL unit keldwick_all)
endforeach()
# The assembled agent under a moved clock.
set_source_files_properties(${PROJECT_SOURCE_DIR}/tests/loop/recorded_test.cpp PROPERTIES
  COMPILE_DEFINITIONS RECORDED_FOLDER="${PROJECT_SOURCE_DIR}/tests/loop/recorded")
keldwick_tests(loop LABEL loop ctl_commands server_parts)
if(TARGET ctl_commands)
  keldwick_tests(keldwickctl LABEL tools ctl_commands)
endif()
if(TARGET server_parts)
  keldwick_tests(keldwick-server LABEL tools server_parts)
endif()

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
