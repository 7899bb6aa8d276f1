# The levels of src/, bottom up. Each is a library that links only what stands below it, and finds its headers in a
# folder of links that holds its own headers and the public ones of what it links: an include against the order does not
# compile. A folder of src/ is one level, or the files of its levels are listed here.

# keldwick_level(NAME FOLDER folder [FILES stem...] [PRIVATE stem...] [LINKS target...])
# FILES: without ".h" and ".cpp"; none given: every file of the folder. PRIVATE: headers for this level's files only.
function(keldwick_level name)
  cmake_parse_arguments(arg "" "FOLDER" "FILES;PRIVATE;LINKS" ${ARGN})
  set(folder ${PROJECT_SOURCE_DIR}/src/${arg_FOLDER})
  file(GLOB found CONFIGURE_DEPENDS ${folder}/*.cpp ${folder}/*.h ${folder}/*.inc)
  set(links ${PROJECT_BINARY_DIR}/levels/${name})
  file(REMOVE_RECURSE ${links})
  file(MAKE_DIRECTORY ${links}/public/${arg_FOLDER} ${links}/private/${arg_FOLDER})
  set(sources "")
  foreach(file ${found})
    cmake_path(GET file STEM stem)
    cmake_path(GET file FILENAME file_name)
    if(file_name MATCHES "^main(_windows)?\\.cpp$" OR (arg_FILES AND NOT stem IN_LIST arg_FILES))
      continue()
    endif()
    set_property(GLOBAL APPEND PROPERTY KELDWICK_LEVEL_FILES ${file})
    if(file_name MATCHES "\\.cpp$")
      if(NOT stem IN_LIST KELDWICK_OF_ANOTHER_PLATFORM)
        list(APPEND sources ${file})
      endif()
      continue()
    endif()
    set(side public)
    if(stem IN_LIST arg_PRIVATE)
      set(side private)
    endif()
    file(CREATE_LINK ${file} ${links}/${side}/${arg_FOLDER}/${file_name} SYMBOLIC)
  endforeach()
  add_library(agent_${name} STATIC ${sources})
  set_property(GLOBAL APPEND PROPERTY KELDWICK_LEVELS agent_${name})
  target_include_directories(agent_${name} PUBLIC ${links}/public PRIVATE ${links}/private)
  target_link_libraries(agent_${name} PUBLIC ${arg_LINKS})
endfunction()

keldwick_level(resources FOLDER resources LINKS windows_headers)  # the layer serves these tables as a program's own
keldwick_level(text FOLDER platform LINKS win32_layer
  FILES error_text format handles heap_buffer line_buffer string time_stamp)
keldwick_level(diagnostics FOLDER diagnostics LINKS agent_text PRIVATE debug_line)
keldwick_level(platform FOLDER platform LINKS agent_diagnostics agent_resources
  FILES host_names ip_address registry_values security version version_numbers)
keldwick_level(state FOLDER service LINKS agent_platform FILES command_line debug_modes settings stop)
keldwick_level(directory FOLDER directory LINKS agent_state)
keldwick_level(component FOLDER component LINKS agent_state)
keldwick_level(protocol FOLDER protocol LINKS agent_directory agent_component)
keldwick_level(identity_tables FOLDER identity LINKS agent_protocol FILES identities identity_file identity_tables logon_index)
keldwick_level(eventlog FOLDER eventlog LINKS agent_identity_tables PRIVATE record_dump)
keldwick_level(identity_handlers FOLDER identity LINKS agent_eventlog PRIVATE logon_steps
  FILES account_logon handlers local_logon logon logon_steps logon_strings service_ticket)
keldwick_level(service FOLDER service LINKS agent_identity_handlers PRIVATE initialize service_main service_worker threads
  FILES entry initialize service_main service_worker threads)

# Several files at once (CMAKE_UNITY_BUILD) suit all levels except these: each handler's file names its event's strings
# alike; and a tool that takes one file of the others is not to get the event source as well, whose thread starts before
# the tool has blocked the signals that end it.
set_target_properties(agent_state agent_protocol agent_eventlog agent_identity_handlers PROPERTIES UNITY_BUILD OFF)
set_source_files_properties(src/diagnostics/event_source.cpp src/diagnostics/service_events.cpp
  PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)

# A file that no level has would not be compiled; one that two have would be compiled twice.
file(GLOB_RECURSE files CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/*.cpp ${PROJECT_SOURCE_DIR}/src/*.h
  ${PROJECT_SOURCE_DIR}/src/*.inc)
list(FILTER files EXCLUDE REGEX "/main(_windows)?\\.cpp$")
get_property(in_levels GLOBAL PROPERTY KELDWICK_LEVEL_FILES)
list(SORT files)
list(SORT in_levels)
if(NOT files STREQUAL in_levels)
  foreach(file ${files})
    list(FIND in_levels ${file} at)
    if(at EQUAL -1)
      message(SEND_ERROR "${file} belongs to no level of cmake/levels.cmake.")
    endif()
    list(REMOVE_AT in_levels ${at})
  endforeach()
  if(in_levels)
    message(SEND_ERROR "${in_levels} belong to two levels of cmake/levels.cmake.")
  endif()
endif()
