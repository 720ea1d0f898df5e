# How every folder adds its tests.

# QtTest takes half of what a test program takes to compile: TARGET parses it once for all programs that are
# compiled with the options of the same libraries.
function(usbhal_precompile_tests target)
    add_library(${target} OBJECT ${PROJECT_SOURCE_DIR}/cmake/PrecompiledTests.cpp)
    target_link_libraries(${target} PRIVATE ${ARGN} Qt5::Test UsbHalCompilerSettings)
    target_precompile_headers(${target} PRIVATE <QtTest>)
endfunction()
usbhal_precompile_tests(UsbHalPrecompiledTests)

# Adds a test as add_test does. The time limit ends what hangs on the busiest machine and judges nothing: it
# is above the five minutes after which QtTest ends a test function and names it.
function(usbhal_register_test test)
    add_test(NAME ${test} COMMAND ${ARGN})
    set_tests_properties(${test} PROPERTIES TIMEOUT 600)
endfunction()

# A QtTest program of the sources. ctest knows it as TEST, such as demo.exchange, and the program is
# named after it: tst_demo_exchange, and without the area for the library's own, usbhal.*.
#
#   usbhal_add_test_program(TEST SOURCES source... [LIBRARIES library...] [RUNNER word...]
#       [PRECOMPILED target] [SCENARIOS])
#
# The first source holds the test's class. RUNNER is the command that starts the program, such as one that
# gives it a node of its own. PRECOMPILED is what usbhal_precompile_tests has made for libraries with
# options. With SCENARIOS each test function runs in a process of its own, which ctest knows as TEST.FUNCTION.
function(usbhal_add_test_program test)
    cmake_parse_arguments(ARG "SCENARIOS" "PRECOMPILED" "SOURCES;LIBRARIES;RUNNER" ${ARGN})
    list(GET ARG_SOURCES 0 source)
    usbhal_check_test_class(${source})
    usbhal_test_program_name(program ${test})
    add_executable(${program} ${ARG_SOURCES})
    set_target_properties(${program} PROPERTIES AUTOMOC ON)
    # Objects, not an archive: out of that the definitions that stand before Qt's own would not be
    # drawn in.
    target_link_libraries(${program} PRIVATE
        ${ARG_LIBRARIES} Qt5::Test UsbHalCompilerSettings $<TARGET_NAME_IF_EXISTS:UsbHalQtAnnotations>)
    if(NOT ARG_PRECOMPILED)
        set(ARG_PRECOMPILED UsbHalPrecompiledTests)
    endif()
    target_precompile_headers(${program} REUSE_FROM ${ARG_PRECOMPILED})
    set(command ${ARG_RUNNER} ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${program}>)
    if(NOT ARG_SCENARIOS)
        usbhal_register_test(${test} ${command})
        return()
    endif()
    usbhal_read_scenarios(scenarios ${source})
    foreach(scenario IN LISTS scenarios)
        usbhal_register_test(${test}.${scenario} ${command} ${scenario})
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
