# Proves that a floor sees what is below it and nothing above: the same file, with the floor's include directories,
# compiles with a header of its own and fails for want of the header with one from above.
#
# cmake -DCOMPILER=path -DINCLUDES=dir;dir -DACCEPTED=header -DREFUSED=header -DSOURCE_DIR=path -DWORK_DIR=path
#       -P CheckFloor.cmake

# Compiles a file that includes HEADER; returns the compiler's exit code and its words.
function(compile_with HEADER CODE WORDS)
  if(NOT EXISTS "${SOURCE_DIR}/${HEADER}")
    message(FATAL_ERROR "${HEADER} is not in the repository: the check would prove nothing")
  endif()
  file(WRITE "${WORK_DIR}/probe.cpp" "#include \"${HEADER}\"\n")
  list(TRANSFORM INCLUDES PREPEND "-I" OUTPUT_VARIABLE flags)
  execute_process(COMMAND "${COMPILER}" -std=c++20 -fsyntax-only ${flags} "${WORK_DIR}/probe.cpp"
                  RESULT_VARIABLE code OUTPUT_QUIET ERROR_VARIABLE words)
  set(${CODE} "${code}" PARENT_SCOPE)
  set(${WORDS} "${words}" PARENT_SCOPE)
endfunction()

compile_with("${ACCEPTED}" code words)
if(NOT code EQUAL 0)
  message(FATAL_ERROR "${ACCEPTED} must be visible here:\n${words}")
endif()
compile_with("${REFUSED}" code words)
if(code EQUAL 0)
  message(FATAL_ERROR "${REFUSED} is visible from a lower floor")
endif()
string(FIND "${words}" "${REFUSED}" named)
if(named EQUAL -1 OR NOT words MATCHES "No such file|file not found")
  message(FATAL_ERROR "${REFUSED} was refused for another reason than being invisible:\n${words}")
endif()
