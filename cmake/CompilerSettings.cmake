set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# Programs find the library from their own place, so that their bytes do not depend on the build folder.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE Release)
endif()

# Warnings and sanitizers of this project, carried by every target that links it.
add_library(UsbHalCompilerSettings INTERFACE)
target_compile_options(UsbHalCompilerSettings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    $<$<BOOL:${USBHAL_WARNINGS_AS_ERRORS}>:-Werror>)

# A precompiled header is told from another by what it holds, so that a cache of compilations may bring it.
target_compile_options(UsbHalCompilerSettings INTERFACE
    "$<$<CXX_COMPILER_ID:Clang>:SHELL:-Xclang -fno-pch-timestamp>")

# Data touched without its mutex is a warning, for what annotates its locks. The tests are left out:
# they look at the core's members in lambdas, each of which would have to say so.
add_library(UsbHalLockChecks INTERFACE)
target_compile_options(UsbHalLockChecks INTERFACE
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)

set(USBHAL_SANITIZE "" CACHE STRING "Sanitizers to build with, for example address,undefined")
if(USBHAL_SANITIZE)
    target_compile_options(UsbHalCompilerSettings INTERFACE
        -fsanitize=${USBHAL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(UsbHalCompilerSettings INTERFACE -fsanitize=${USBHAL_SANITIZE})
endif()

option(USBHAL_COVERAGE "Build with coverage counters" OFF)
if(USBHAL_COVERAGE)
    target_compile_options(UsbHalCompilerSettings INTERFACE --coverage)
    target_link_options(UsbHalCompilerSettings INTERFACE --coverage)
endif()
