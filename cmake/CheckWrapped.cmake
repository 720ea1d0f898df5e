# cmake -D NM=PROGRAM -D TARGET=NAME -D FUNCTIONS=NAME,... -P CheckWrapped.cmake -- OBJECT...
# Fails unless each function is called by one of the objects. The linker says nothing of a --wrap that
# meets no call, and the test would go on with the real function.
set(objects)
set(begun OFF)
foreach(index RANGE ${CMAKE_ARGC})
    if(begun AND index LESS CMAKE_ARGC)
        list(APPEND objects ${CMAKE_ARGV${index}})
    elseif("${CMAKE_ARGV${index}}" STREQUAL "--")
        set(begun ON)
    endif()
endforeach()

execute_process(COMMAND ${NM} --undefined-only ${objects} OUTPUT_VARIABLE symbols RESULT_VARIABLE failure)
if(failure)
    message(FATAL_ERROR "${NM} cannot read the objects whose calls ${TARGET} wraps: build them again")
endif()
string(REPLACE "," ";" functions ${FUNCTIONS})
foreach(function IN LISTS functions)
    if(NOT symbols MATCHES " U ${function}\n")
        message(FATAL_ERROR "${TARGET} wraps ${function}, which no object calls any more: "
            "find in the library what is called instead, and wrap that in usbhal_wrap() and the source")
    endif()
endforeach()
