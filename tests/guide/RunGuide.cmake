# Runs PROGRAM in a folder made for it, and compares what it prints with the file EXPECTED.
execute_process(COMMAND mktemp -d OUTPUT_VARIABLE folder OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${PROGRAM} WORKING_DIRECTORY ${folder} RESULT_VARIABLE status OUTPUT_VARIABLE printed
                ERROR_VARIABLE complaints)
file(REMOVE_RECURSE ${folder})
file(READ ${EXPECTED} expected)
if(NOT status EQUAL 0 OR NOT printed STREQUAL expected)
  message(FATAL_ERROR "The guide's program ended with ${status}: ${complaints}\nIt printed\n${printed}\nand not\n${expected}")
endif()
