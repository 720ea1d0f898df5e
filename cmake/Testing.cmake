# How every folder adds its tests.

# A QtTest program of the sources. ctest knows it as TEST, such as demo.exchange, and the program is
# named after it: tst_demo_exchange, and without the area for the library's own, usbhal.*.
#
#   usbhal_add_test_program(TEST SOURCES source... [LIBRARIES library...] [RUNNER word...]
#       [TIMEOUT seconds] [SCENARIOS])
#
# The first source holds the test's class. RUNNER is the command that starts the program, such as one that
# gives it a node of its own. With SCENARIOS each test function runs in a process of its own, which ctest
# knows as TEST.FUNCTION.
function(usbhal_add_test_program test)
    cmake_parse_arguments(ARG "SCENARIOS" "TIMEOUT" "SOURCES;LIBRARIES;RUNNER" ${ARGN})
    list(GET ARG_SOURCES 0 source)
    usbhal_check_test_class(${source})
    usbhal_test_program_name(program ${test})
    add_executable(${program} ${ARG_SOURCES})
    set_target_properties(${program} PROPERTIES AUTOMOC ON)
    # Objects, not an archive: out of that the definitions that stand before Qt's own would not be
    # drawn in.
    target_link_libraries(${program} PRIVATE
        ${ARG_LIBRARIES} Qt5::Test UsbHalCompilerSettings $<TARGET_NAME_IF_EXISTS:UsbHalQtAnnotations>)
    set(command ${ARG_RUNNER} ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${program}>)
    if(NOT ARG_SCENARIOS)
        add_test(NAME ${test} COMMAND ${command})
        set_tests_properties(${test} PROPERTIES TIMEOUT ${ARG_TIMEOUT})
        return()
    endif()
    usbhal_read_scenarios(scenarios ${source})
    foreach(scenario IN LISTS scenarios)
        add_test(NAME ${test}.${scenario} COMMAND ${command} ${scenario})
        set_tests_properties(${test}.${scenario} PROPERTIES TIMEOUT ${ARG_TIMEOUT})
    endforeach()
endfunction()

function(usbhal_test_program_name result test)
    string(REGEX REPLACE "^usbhal\\." "" program ${test})
    string(REPLACE "." "_" program ${program})
    set(${result} tst_${program} PARENT_SCOPE)
endfunction()

function(usbhal_check_test_class SOURCE)
    include(${PROJECT_SOURCE_DIR}/cmake/CheckTestClass.cmake)
endfunction()

# The test functions of a source, read from its private slots, so that none is left out.
function(usbhal_read_scenarios result source)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
    file(READ ${source} text)
    string(REGEX REPLACE "^.*\nprivate slots:" "" text "${text}")
    string(REGEX REPLACE "\n(private:|};).*$" "" text "${text}")
    string(REGEX MATCHALL "\n    void [A-Za-z0-9]+\\(\\)" declarations "${text}")
    if(NOT declarations)
        message(FATAL_ERROR "${source} has no private slots to run")
    endif()
    list(TRANSFORM declarations REPLACE "^.* void (.*)\\(\\)$" "\\1")
    list(FILTER declarations EXCLUDE REGEX "^(init|cleanup|initTestCase|cleanupTestCase)$")
    set(${result} ${declarations} PARENT_SCOPE)
endfunction()

# Gives the library's calls of functions into a test's hands: a call of NAME goes to __wrap_NAME. The
# build fails where nothing calls a function, as then nothing would be wrapped.
#
#   usbhal_wrap(TARGET PRIVATE|INTERFACE FUNCTIONS name... [CALLED_BY target...])
#
# CALLED_BY names what else than the library calls the functions. Fails before the target is linked.
function(usbhal_wrap target scope)
    cmake_parse_arguments(ARG "" "" "FUNCTIONS;CALLED_BY" ${ARGN})
    list(TRANSFORM ARG_FUNCTIONS PREPEND "LINKER:--wrap=" OUTPUT_VARIABLE options)
    target_link_options(${target} ${scope} ${options})

    set(objects)
    foreach(caller IN ITEMS UsbHalObjects LISTS ARG_CALLED_BY)
        list(APPEND objects $<TARGET_OBJECTS:${caller}>)
    endforeach()
    list(JOIN ARG_FUNCTIONS "," functions) # a list would become words of its own
    set(stamp ${CMAKE_CURRENT_BINARY_DIR}/${target}.wrapped)
    add_custom_command(OUTPUT ${stamp}
        COMMAND ${CMAKE_COMMAND} -D NM=${CMAKE_NM} -D TARGET=${target} -D FUNCTIONS=${functions}
            -P ${PROJECT_SOURCE_DIR}/cmake/CheckWrapped.cmake -- ${objects}
        COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
        DEPENDS ${objects} ${PROJECT_SOURCE_DIR}/cmake/CheckWrapped.cmake
        COMMENT "Looking for the calls that ${target} wraps"
        COMMAND_EXPAND_LISTS VERBATIM)
    add_custom_target(${target}-wrapped ALL DEPENDS ${stamp})
    add_dependencies(${target} ${target}-wrapped)
endfunction()
