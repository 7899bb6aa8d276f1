# The agent, its layer, the tools, tests, benchmarks and fuzz targets on Linux.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(EXPAT REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(CLI11 REQUIRED)
pkg_check_modules(ICU REQUIRED IMPORTED_TARGET icu-uc icu-i18n)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
pkg_check_modules(LDAP REQUIRED IMPORTED_TARGET ldap)
pkg_check_modules(EVTX REQUIRED IMPORTED_TARGET libevtx)
pkg_check_modules(HTTP REQUIRED IMPORTED_TARGET libmicrohttpd)
pkg_check_modules(SIMDJSON REQUIRED IMPORTED_TARGET simdjson)

# The headers in win32/include stand for the system's.
add_library(windows_headers INTERFACE)
target_include_directories(windows_headers SYSTEM INTERFACE ${PROJECT_SOURCE_DIR}/win32/include)

# The layer: its folders call each other, and so are one library. Its own headers, win32/FOLDER/..., are not for the
# levels of src/.
set(layer_folders text memory sync files registry eventlog services security directory sockets)
set(layer_headers ${PROJECT_BINARY_DIR}/levels/layer)
file(MAKE_DIRECTORY ${layer_headers})
file(CREATE_LINK ${PROJECT_SOURCE_DIR}/win32 ${layer_headers}/win32 SYMBOLIC)
add_library(win32_layer STATIC)
foreach(folder ${layer_folders})
  keldwick_folder(win32_${folder} OBJECT win32/${folder} ${layer_headers})
  target_link_libraries(win32_${folder} PUBLIC agent_resources OpenSSL::Crypto)
  target_link_libraries(win32_layer PUBLIC win32_${folder})
endforeach()
set_target_properties(win32_layer PROPERTIES LINKER_LANGUAGE CXX)
# Where several files are compiled as one (CMAKE_UNITY_BUILD), these stay apart: two of sockets/ stand between two
# families of headers whose macros have the same names, and the tests move the clock of sync/ at the border of its file.
set_target_properties(win32_sync PROPERTIES UNITY_BUILD OFF)
set_source_files_properties(win32/sockets/name_info.cpp win32/sockets/socket_error.cpp
  PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)

set(KELDWICK_OF_ANOTHER_PLATFORM schannel_engine)
include(cmake/levels.cmake)

# The folders of the agent's tests.
set(agent_folders resources platform diagnostics eventlog identity directory protocol component service)

keldwick_folder(tool_common STATIC tools/common)
keldwick_folder(tool_feed STATIC tools/feed)
keldwick_folder(ctl_commands STATIC tools/keldwickctl)
keldwick_folder(server_parts STATIC tools/keldwick-server)
# What the agent's tests need of the reference server: its side of the protocol.
set(server_side tools/keldwick-server/request.cpp tools/keldwick-server/server_tls.cpp)
add_library(server_protocol STATIC ${server_side})
target_include_directories(server_protocol PUBLIC ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/src)
set_property(GLOBAL APPEND PROPERTY KELDWICK_LIBRARIES server_protocol)
get_target_property(sources server_parts SOURCES)
list(TRANSFORM server_side PREPEND ${PROJECT_SOURCE_DIR}/)
list(REMOVE_ITEM sources ${server_side})
set_target_properties(server_parts PROPERTIES SOURCES "${sources}")
set(page_folder ${PROJECT_SOURCE_DIR}/tools/keldwick-server/page)
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/page_files.cpp
  COMMAND ${CMAKE_COMMAND} -DFOLDER=${page_folder} -DOUTPUT=${PROJECT_BINARY_DIR}/page_files.cpp
    -P ${PROJECT_SOURCE_DIR}/cmake/page_files.cmake
  DEPENDS cmake/page_files.cmake ${page_folder}/index.html ${page_folder}/page.css ${page_folder}/page.js)
target_sources(server_parts PRIVATE ${PROJECT_BINARY_DIR}/page_files.cpp)

get_property(libraries GLOBAL PROPERTY KELDWICK_LIBRARIES)
foreach(library ${libraries})
  target_include_directories(${library} SYSTEM PUBLIC ${PROJECT_SOURCE_DIR}/win32/include)
  target_link_libraries(${library} PUBLIC PkgConfig::ICU PkgConfig::SYSTEMD PkgConfig::LDAP OpenSSL::SSL Threads::Threads)
endforeach()

# What the fuzz targets drive counts where it has been: -fsanitize=fuzzer-no-link, in words that suit a precompiled header.
if(KELDWICK_FUZZ)
  set(counted -fsanitize-coverage=inline-8bit-counters,indirect-calls,trace-cmp,pc-table)
  set_source_files_properties(tools/keldwickctl/evtx_import.cpp PROPERTIES COMPILE_OPTIONS "${counted}")
  get_property(levels GLOBAL PROPERTY KELDWICK_LEVELS)
  list(TRANSFORM layer_folders PREPEND win32_ OUTPUT_VARIABLE layer)
  foreach(library ${layer} ${levels} tool_common tool_feed server_protocol server_parts)
    target_compile_options(${library} PRIVATE ${counted})
  endforeach()
endif()

# keldwick_program(NAME FOLDER LIBRARIES...): the program NAME from FOLDER/main.cpp.
function(keldwick_program name folder)
  if(EXISTS ${PROJECT_SOURCE_DIR}/${folder}/main.cpp)
    add_executable(${name} ${folder}/main.cpp)
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/src)
    target_include_directories(${name} SYSTEM PRIVATE ${PROJECT_SOURCE_DIR}/win32/include)
    target_link_libraries(${name} PRIVATE ${ARGN})
  endif()
endfunction()

# The tools: what they share, the live sources on top of it, then the programs.
target_link_libraries(tool_common PUBLIC agent_service EXPAT::EXPAT nlohmann_json::nlohmann_json)
target_link_libraries(tool_feed PUBLIC tool_common PRIVATE PkgConfig::SIMDJSON)
# Without optimisation the library checks how it is used, and that check does not survive a lack of memory (preset dev has it).
target_compile_definitions(tool_feed PRIVATE $<$<CONFIG:None>:SIMDJSON_DEVELOPMENT_CHECKS=0>)
if(TARGET ctl_commands)
  target_link_libraries(ctl_commands PUBLIC tool_feed PkgConfig::EVTX CLI11::CLI11)
endif()
target_link_libraries(server_protocol PUBLIC agent_service)
if(TARGET server_parts)
  target_link_libraries(server_parts PUBLIC server_protocol tool_common PkgConfig::HTTP OpenSSL::SSL OpenSSL::Crypto CLI11::CLI11)
endif()
# The release is optimised across files, which serves the agent; what parses in the tools is inlined less by it, and slower.
foreach(library tool_common tool_feed ctl_commands server_protocol server_parts)
  if(TARGET ${library})
    set_target_properties(${library} PROPERTIES INTERPROCEDURAL_OPTIMIZATION OFF)
  endif()
endforeach()
keldwick_program(keldwick src/service agent_service)
keldwick_program(keldwickctl tools/keldwickctl ctl_commands)
keldwick_program(keldwick-server tools/keldwick-server server_parts)

if(KELDWICK_TESTS)
  enable_testing()
  include(cmake/tests.cmake)
endif()
if(KELDWICK_BENCH)
  include(cmake/bench.cmake)
endif()
if(KELDWICK_FUZZ)
  include(cmake/fuzz.cmake)
endif()
include(cmake/checks.cmake)
