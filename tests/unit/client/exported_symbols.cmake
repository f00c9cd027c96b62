# The shared library exports exactly what its header declares, under the symbol versions in the
# list. A name never leaves the list.
# Variables: NM, LIBRARY, HEADER, LIST.
execute_process(COMMAND "${NM}" -D --defined-only "${LIBRARY}"
    OUTPUT_VARIABLE listed COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^ \n]+\n" exported "${listed}")
list(TRANSFORM exported STRIP)
list(FILTER exported EXCLUDE REGEX "^STILLIMAGE_CLIENT_[0-9]+$")
list(TRANSFORM exported REPLACE "@@" " ")
list(SORT exported)

file(STRINGS "${LIST}" promised)
list(SORT promised)
if(NOT "${exported}" STREQUAL "${promised}")
    message(FATAL_ERROR "promised: ${promised}\nexported: ${exported}")
endif()

file(READ "${HEADER}" header)
string(REGEX MATCHALL "STILLIMAGE_API [^;(]*[ *\n]stillimage_[a-z0-9_]+\\(" declared "${header}")
list(TRANSFORM declared REPLACE "^.*[ *\n](stillimage_[a-z0-9_]+)\\($" "\\1")
list(SORT declared)
list(TRANSFORM promised REPLACE " .*" "")
if(NOT "${declared}" STREQUAL "${promised}")
    message(FATAL_ERROR "promised: ${promised}\ndeclared: ${declared}")
endif()
