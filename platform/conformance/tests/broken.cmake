# A broken port is caught: it fails the clauses named and no other, and what the kit could not
# judge for it says that it needs one of them.
# usage: cmake -D CHECK=... -D DECLARATION=... -D FAULT=... -D CLAUSES=A,B -D SCRATCH=...
#              -P broken.cmake
cmake_minimum_required(VERSION 3.25)

string(REPLACE "," ";" expected "${CLAUSES}")
file(REMOVE_RECURSE "${SCRATCH}")
file(MAKE_DIRECTORY "${SCRATCH}")
execute_process(
  COMMAND
    "${CMAKE_COMMAND}" -E env "ONDARO_BROKEN=${FAULT}" "ONDARO_HOST_STATE=${SCRATCH}/state"
    "${CHECK}" "${DECLARATION}" --patience 2000 --json "${SCRATCH}/result.json"
  RESULT_VARIABLE status
  OUTPUT_VARIABLE output
  ERROR_VARIABLE output)
if(NOT status EQUAL 1)
  message(FATAL_ERROR "exit status ${status} for a broken port\n${output}")
endif()

file(READ "${SCRATCH}/result.json" json)
string(JSON count LENGTH "${json}" clauses)
math(EXPR last "${count} - 1")
set(failed)
foreach(i RANGE ${last})
  string(JSON clause GET "${json}" clauses ${i} clause)
  string(JSON verdict GET "${json}" clauses ${i} status)
  string(JSON text GET "${json}" clauses ${i} text)
  if(verdict STREQUAL "failed")
    list(APPEND failed ${clause})
  elseif(verdict STREQUAL "blocked")
    string(REGEX MATCH "^needs ([A-Z]+-[0-9]+)" needed "${text}")
    if(NOT CMAKE_MATCH_1 IN_LIST expected)
      message(SEND_ERROR "${clause} is blocked, but not by what ${FAULT} breaks: ${text}")
    endif()
  elseif(verdict STREQUAL "undeclared")
    message(SEND_ERROR "${clause}: ${text}")
  endif()
endforeach()
if(NOT failed STREQUAL expected)
  message(FATAL_ERROR "${FAULT}: failed are [${failed}], not [${expected}]\n${output}")
endif()
file(REMOVE_RECURSE "${SCRATCH}")
