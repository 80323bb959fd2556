# Makes a manual page from its frame: what PROGRAM says about its own command line takes the place of the line @MANUAL@.
#
# cmake -DIN=frame -DOUT=page -DVERSION=x.y.z [-DPROGRAM=path] -P ManualPage.cmake
cmake_minimum_required(VERSION 3.25)

set(manual "")
if(PROGRAM)
  execute_process(COMMAND "${PROGRAM}" manual OUTPUT_VARIABLE manual COMMAND_ERROR_IS_FATAL ANY)
endif()
file(READ "${IN}" page)
string(REPLACE "@MANUAL@\n" "${manual}" page "${page}")
string(REPLACE "@VERSION@" "${VERSION}" page "${page}")
file(WRITE "${OUT}" "${page}")
