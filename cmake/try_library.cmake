# try_library(NAME HEADER header LIBRARIES file... CHECK source EXPLAIN text)
#
# Searches for the header and one of the library files in <NAME>_ROOT if that is set, otherwise in
# .deps/prefix and then in the system's folders. Creates the imported target NAME::NAME from the first
# place where the check compiles, links and runs. The result is cached, and searched for again if the
# library no longer exists.

function(try_library_in name place)
    if(place STREQUAL "system")
        find_path(candidate_include ${ARG_HEADER} NO_CACHE)
        find_library(candidate_library NAMES ${ARG_LIBRARIES} NO_CACHE)
    else()
        find_path(candidate_include ${ARG_HEADER} PATHS "${place}/include" NO_DEFAULT_PATH NO_CACHE)
        find_library(candidate_library NAMES ${ARG_LIBRARIES} PATHS "${place}/lib"
            NO_DEFAULT_PATH NO_CACHE)
    endif()
    if(NOT candidate_include OR NOT candidate_library)
        return()
    endif()
    try_run(ran compiled "${PROJECT_BINARY_DIR}/checks/${name}" "${ARG_CHECK}"
        CMAKE_FLAGS "-DINCLUDE_DIRECTORIES=${candidate_include}"
        LINK_LIBRARIES "${candidate_library}")
    if(compiled AND ran EQUAL 0)
        set(${name}_include "${candidate_include}" CACHE INTERNAL "")
        set(${name}_library "${candidate_library}" CACHE INTERNAL "")
    endif()
endfunction()

function(try_library name)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "HEADER;CHECK;EXPLAIN" "LIBRARIES")
    string(TOUPPER ${name} upper)
    set(${upper}_ROOT "" CACHE PATH "Folder with include/ and lib/ of ${name}; empty: search")
    if(${upper}_ROOT)
        set(places "${${upper}_ROOT}")
    else()
        set(places "${PROJECT_SOURCE_DIR}/.deps/prefix" system)
    endif()

    if(NOT EXISTS "${${name}_library}" OR NOT "${places}" STREQUAL "${${name}_places}")
        unset(${name}_library CACHE)
        foreach(place IN LISTS places)
            if(NOT ${name}_library)
                try_library_in(${name} "${place}")
            endif()
        endforeach()
        if(NOT ${name}_library)
            message(FATAL_ERROR "${ARG_EXPLAIN}\n"
                "Looked in: ${places}\n"
                "Run scripts/setup, which provides it, or set its folder with -D${upper}_ROOT=DIR.")
        endif()
        set(${name}_places "${places}" CACHE INTERNAL "")
        message(STATUS "Found ${name}: ${${name}_library}")
    endif()

    if(NOT TARGET ${name}::${name})
        add_library(${name}::${name} UNKNOWN IMPORTED)
        set_target_properties(${name}::${name} PROPERTIES
            IMPORTED_LOCATION "${${name}_library}"
            INTERFACE_INCLUDE_DIRECTORIES "${${name}_include}")
    endif()
    set(${name}_FOUND TRUE PARENT_SCOPE)
endfunction()
