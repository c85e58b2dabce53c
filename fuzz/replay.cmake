# Runs every fuzz program (PROGRAMS, a list) over every seed and finding below INPUTS (corpus/ and
# regressions/ of all targets: a parser must also survive the inputs of its neighbours).
foreach(dir corpus regressions)
  if(IS_DIRECTORY ${INPUTS}/${dir})
    list(APPEND folders ${INPUTS}/${dir})
  endif()
endforeach()
foreach(program ${PROGRAMS})
  execute_process(COMMAND ${program} ${folders} RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${program} failed (${status}) on the committed inputs")
  endif()
endforeach()
