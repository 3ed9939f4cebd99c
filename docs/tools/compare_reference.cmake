# Fails when what PROGRAM prints is not what the file KEPT holds.
execute_process(COMMAND ${PROGRAM} OUTPUT_VARIABLE current RESULT_VARIABLE status)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "${PROGRAM}: ${status}")
endif()
file(READ ${KEPT} kept)
if(NOT current STREQUAL kept)
    message(FATAL_ERROR "${KEPT} is out of date: cmake --build --preset release --target command-reference")
endif()
