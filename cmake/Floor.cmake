# Floors: libraries whose includes can only run downwards.
#
# The sources of all floors share one tree, so a plain "-I <repository>" would let any file include any other. Instead
# each floor gets an include directory of its own, ${PROJECT_BINARY_DIR}/floors/<name>/, which holds nothing but a
# symbolic link to the floor's folder under its name in the repository:
#
#   floors/Zol/runtime/Zol -> <repository>/runtime/Zol
#
# A target sees the directories of the floors it links to and of those below them. An upward include does not compile.

# floor_include_dir(OUT FLOOR FOLDER): makes the include directory of one floor and returns its path in OUT.
# FOLDER is relative to the repository and need not exist yet.
function(floor_include_dir OUT FLOOR FOLDER)
  set(root "${PROJECT_BINARY_DIR}/floors/${FLOOR}")
  cmake_path(GET FOLDER PARENT_PATH parent)
  file(MAKE_DIRECTORY "${root}/${parent}")
  file(CREATE_LINK "${PROJECT_SOURCE_DIR}/${FOLDER}" "${root}/${FOLDER}" SYMBOLIC)
  set(${OUT} "${root}" PARENT_SCOPE)
endfunction()

# floor_library(NAME FOLDER folder [WITHOUT file...] [DEPENDS target...] [PRECOMPILED header...])
# One library of all sources below FOLDER but those named in WITHOUT. With headers alone it is an INTERFACE library.
# What it depends on is visible to whatever links to it. PRECOMPILED: headers that most of its sources include anyway;
# they are read once. The preset clang reads them as often as they are included, so that no include goes missing.
function(floor_library NAME)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "FOLDER" "WITHOUT;DEPENDS;PRECOMPILED")
  floor_include_dir(include ${NAME} ${arg_FOLDER})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${arg_FOLDER}/*.cpp")
  list(TRANSFORM arg_WITHOUT PREPEND "${PROJECT_SOURCE_DIR}/${arg_FOLDER}/")
  list(REMOVE_ITEM sources ${arg_WITHOUT})
  if(sources)
    add_library(${NAME} STATIC ${sources})
    set(scope PUBLIC)
  else()
    add_library(${NAME} INTERFACE)
    set(scope INTERFACE)
  endif()
  target_include_directories(${NAME} ${scope} "$<BUILD_INTERFACE:${include}>")
  target_link_libraries(${NAME} ${scope} ${arg_DEPENDS})
  add_library(tunnel-agent::${NAME} ALIAS ${NAME})  # as find_package() names it
  list(TRANSFORM arg_PRECOMPILED REPLACE "(.+)" "<\\1>")
  target_precompile_headers(${NAME} PRIVATE ${arg_PRECOMPILED})
endfunction()

# floor_program(NAME MAIN file [DEPENDS target...]): an executable of one source file, once that file is there.
function(floor_program NAME)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "MAIN" "DEPENDS")
  file(GLOB main CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${arg_MAIN}")
  if(main)
    add_executable(${NAME} "${main}")
    target_link_libraries(${NAME} PRIVATE ${arg_DEPENDS})
  endif()
endfunction()

# floor_tests(NAME FOLDER folder DEPENDS target... [PRECOMPILED header...]): one GoogleTest executable, and one ctest entry, of all sources
# below FOLDER. It sees the floors it depends on, its own folder and tests/support. The entry fails if a file is left in
# the directory for temporary files.
function(floor_tests NAME)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "FOLDER" "DEPENDS;PRECOMPILED")
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${arg_FOLDER}/*.cpp")
  if(NOT sources)
    return()
  endif()
  floor_include_dir(include ${NAME} ${arg_FOLDER})
  add_executable(${NAME} ${sources})
  set_target_properties(${NAME} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/tests")
  target_include_directories(${NAME} PRIVATE "${include}")
  target_link_libraries(${NAME} PRIVATE ${arg_DEPENDS} test_support GTest::gtest_main)
  list(TRANSFORM arg_PRECOMPILED REPLACE "(.+)" "<\\1>")
  target_precompile_headers(${NAME} PRIVATE <gtest/gtest.h> ${arg_PRECOMPILED})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC 12 loses track of initialisations between a precompiled header and a test.
    target_compile_options(${NAME} PRIVATE -Wno-maybe-uninitialized)
  endif()
  target_compile_definitions(${NAME} PRIVATE
      TEST_DATA_DIR="${PROJECT_SOURCE_DIR}/tests/data" EXAMPLES_DIR="${PROJECT_SOURCE_DIR}/examples")
  add_test(NAME ${NAME}
           COMMAND "${PROJECT_SOURCE_DIR}/tests/scripts/leavesNothing.sh" $<TARGET_FILE:${NAME}> --gtest_brief=1)
endfunction()

# floor_test_program(NAME DEFINITION PROGRAM): lets tests NAME run a built PROGRAM, whose path is in DEFINITION.
function(floor_test_program NAME DEFINITION PROGRAM)
  if(TARGET ${NAME} AND TARGET ${PROGRAM})
    target_compile_definitions(${NAME} PRIVATE ${DEFINITION}="$<TARGET_FILE:${PROGRAM}>")
    add_dependencies(${NAME} ${PROGRAM})
  endif()
endfunction()

# floor_first_header(OUT FOLDER): some header directly in FOLDER, or nothing when it has none.
function(floor_first_header OUT FOLDER)
  file(GLOB headers RELATIVE "${PROJECT_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}/${FOLDER}/*.h")
  list(SORT headers)
  list(POP_FRONT headers header)
  set(${OUT} "${header}" PARENT_SCOPE)
endfunction()

# floor_check(FLOOR FOLDER ABOVE): a test that FLOOR, whose headers are in FOLDER, cannot include from folder ABOVE.
function(floor_check FLOOR FOLDER ABOVE)
  floor_first_header(accepted ${FOLDER})
  floor_first_header(refused ${ABOVE})
  if(NOT accepted OR NOT refused)
    return()
  endif()
  string(REPLACE "/" "_" above ${ABOVE})
  set(work "${PROJECT_BINARY_DIR}/floorChecks/${FLOOR}_${above}")
  file(MAKE_DIRECTORY "${work}")
  add_test(NAME floor_${FLOOR}_below_${above}
           COMMAND ${CMAKE_COMMAND} "-DCOMPILER=${CMAKE_CXX_COMPILER}"
                   "-DINCLUDES=$<TARGET_PROPERTY:${FLOOR},INTERFACE_INCLUDE_DIRECTORIES>"
                   -DACCEPTED=${accepted} -DREFUSED=${refused}
                   "-DSOURCE_DIR=${PROJECT_SOURCE_DIR}" "-DWORK_DIR=${work}"
                   -P "${PROJECT_SOURCE_DIR}/cmake/CheckFloor.cmake")
endfunction()
