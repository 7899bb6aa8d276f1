# Targets that look at the source: `format` mends its layout, `format-check` fails on a wrong one, `tidy` runs clang-tidy.
find_program(CLANG_FORMAT clang-format)
find_program(RUN_CLANG_TIDY run-clang-tidy)
if(CLANG_FORMAT)
  file(GLOB_RECURSE checked CONFIGURE_DEPENDS src/*.h src/*.cpp win32/*.h win32/*.cpp tools/*.h tools/*.cpp
    tests/*.h tests/*.cpp bench/*.h bench/*.cpp fuzz/*.cpp)
  add_custom_target(format COMMAND ${CLANG_FORMAT} -i ${checked} WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
  add_custom_target(format-check COMMAND ${CLANG_FORMAT} --dry-run --Werror ${checked}
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
endif()
if(RUN_CLANG_TIDY)
  add_custom_target(tidy COMMAND ${RUN_CLANG_TIDY} -quiet -p ${CMAKE_BINARY_DIR}
    "${PROJECT_SOURCE_DIR}/(src|win32|tools)/" WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
endif()
