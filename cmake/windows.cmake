# Keldwick.exe, from the same levels as the agent on Linux, here over Windows' own headers and libraries: the proof that
# the layer in win32/ declares types, constants and signatures as Windows does, and that no level includes what stands above it.
find_program(SYSTEM_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)  # Debian's, whose packages the tests use
find_program(MESSAGE_COMPILER NAMES x86_64-w64-mingw32-windmc REQUIRED)
enable_language(RC)
add_compile_definitions(UNICODE _UNICODE _WIN32_WINNT=0x0A00 WIN32_LEAN_AND_MEAN NOMINMAX)
add_library(windows_headers INTERFACE)  # the compiler's own
add_library(win32_layer INTERFACE)      # Windows itself
target_link_libraries(win32_layer INTERFACE ws2_32 secur32 crypt32 activeds adsiid ole32 oleaut32 version)
set(KELDWICK_OF_ANOTHER_PLATFORM openssl_engine)
include(cmake/levels.cmake)

# The resources, from the lists that the Linux build reads.
set(resources ${PROJECT_SOURCE_DIR}/src/resources)
set(messages ${PROJECT_BINARY_DIR}/messages)
file(MAKE_DIRECTORY ${messages})
add_custom_command(OUTPUT ${messages}/keldwick_messages.rc
  COMMAND ${SYSTEM_PYTHON} ${resources}/message_table_mc.py ${resources}/message_table.inc > keldwick_messages.mc
  COMMAND ${MESSAGE_COMPILER} keldwick_messages.mc
  DEPENDS ${resources}/message_table_mc.py ${resources}/message_table.inc WORKING_DIRECTORY ${messages} VERBATIM)
set_source_files_properties(${resources}/keldwick.rc PROPERTIES OBJECT_DEPENDS
  "${resources}/string_table.inc;${resources}/version.inc;${resources}/keldwick.manifest")

# keldwick_executable(TARGET NAME [SOURCE...]): NAME.exe, the whole agent.
function(keldwick_executable target name)
  add_executable(${target} WIN32 src/service/main_windows.cpp ${resources}/keldwick.rc ${messages}/keldwick_messages.rc ${ARGN})
  set_target_properties(${target} PROPERTIES OUTPUT_NAME ${name} UNITY_BUILD OFF)
  target_include_directories(${target} PRIVATE src)
  target_link_libraries(${target} PRIVATE agent_service)
  target_link_options(${target} PRIVATE -municode -static -s)
endfunction()
keldwick_executable(keldwick Keldwick)

# tests/windows/test_*.py, Python's unittest: what was built, and what it does under wine, beside the Linux programs.
set(KELDWICK_LINUX_BIN ${PROJECT_SOURCE_DIR}/build/asan/bin CACHE PATH "The Linux programs that the tests compare with")
if(KELDWICK_TESTS)
  enable_testing()
  keldwick_executable(keldwick_with_log KeldwickWithLog tests/windows/event_log_double.cpp tests/windows/refused_status.cpp)
  add_executable(tls_client tests/windows/tls_client.cpp)  # what the Linux tests of the TLS engine drive
  target_include_directories(tls_client PRIVATE src)
  target_link_libraries(tls_client PRIVATE agent_component)
  target_link_options(tls_client PRIVATE -static -s)
  # The tests of the layer that make Windows calls alone, here over Windows' own.
  set(googletest /usr/src/googletest)
  file(GLOB interfaces CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/win32/interfaces/*.cpp)
  add_executable(tests_interfaces ${interfaces} ${googletest}/googletest/src/gtest-all.cc
    ${googletest}/googlemock/src/gmock-all.cc ${googletest}/googletest/src/gtest_main.cc)
  target_include_directories(tests_interfaces PRIVATE tests/windows/instead .)
  target_include_directories(tests_interfaces SYSTEM PRIVATE ${googletest}/googletest ${googletest}/googletest/include
    ${googletest}/googlemock ${googletest}/googlemock/include)
  target_compile_options(tests_interfaces PRIVATE -O0)
  target_precompile_headers(tests_interfaces PRIVATE tests/windows/instead/windows_with_char16.h)
  set_target_properties(tests_interfaces PROPERTIES UNITY_BUILD OFF)
  target_link_libraries(tests_interfaces PRIVATE ws2_32)
  target_link_options(tests_interfaces PRIVATE -static -s)

  set(machine ${PROJECT_BINARY_DIR}/machine)  # made once, and copied by each test
  file(GLOB tests CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/windows/test_*.py)
  list(TRANSFORM tests REPLACE "^.*/(.*)\\.py$" "\\1")
  foreach(name ${tests})
    add_test(NAME windows/${name} COMMAND ${SYSTEM_PYTHON} -m unittest -v ${name})
    set_tests_properties(windows/${name} PROPERTIES FIXTURES_REQUIRED machine)
  endforeach()
  set_tests_properties(windows/test_image PROPERTIES FIXTURES_REQUIRED "")
  set_tests_properties(windows/test_program windows/test_logons PROPERTIES COST 60)  # begin first
  add_test(NAME windows/make_machine COMMAND ${SYSTEM_PYTHON} wine.py)
  add_test(NAME windows/remove_machine COMMAND ${CMAKE_COMMAND} -E rm -rf ${machine})
  set_tests_properties(windows/make_machine PROPERTIES FIXTURES_SETUP machine)
  set_tests_properties(windows/remove_machine PROPERTIES FIXTURES_CLEANUP machine)
  list(TRANSFORM tests PREPEND windows/)
  set_tests_properties(${tests} windows/make_machine PROPERTIES LABELS windows TIMEOUT 300
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}/tests/windows ENVIRONMENT
    "KELDWICK_WINDOWS_BIN=${CMAKE_RUNTIME_OUTPUT_DIRECTORY};KELDWICK_BIN=${KELDWICK_LINUX_BIN};PYTHONDONTWRITEBYTECODE=1;KELDWICK_WINE_TEMPLATE=${machine}")
endif()
