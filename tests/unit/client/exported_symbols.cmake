# The shared library exports what its header declares, under its version, and nothing else.
# Variables: NM, LIBRARY, HEADER.
execute_process(COMMAND "${NM}" -D --defined-only "${LIBRARY}"
    OUTPUT_VARIABLE listed COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^ \n]+\n" exported "${listed}")
list(TRANSFORM exported STRIP)
list(REMOVE_ITEM exported STILLIMAGE_CLIENT_1)
list(SORT exported)

file(READ "${HEADER}" header)
string(REGEX MATCHALL "STILLIMAGE_API [^;(]*[ *\n]stillimage_[a-z_]+\\(" declared "${header}")
list(TRANSFORM declared REPLACE "^.*[ *\n](stillimage_[a-z_]+)\\($" "\\1@@STILLIMAGE_CLIENT_1")
list(SORT declared)

list(LENGTH declared count)
if(count LESS 22 OR NOT "${exported}" STREQUAL "${declared}")
    message(FATAL_ERROR "declared: ${declared}\nexported: ${exported}")
endif()
