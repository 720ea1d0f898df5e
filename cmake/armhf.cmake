# Toolchain file for 32-bit ARM (Debian's armhf: ARMv7, hard float), against the sysroot that
# Scripts/sysroot makes. ctest runs what is built under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(USBHAL_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-armhf CACHE PATH
    "Root of what is compiled against")
get_filename_component(CMAKE_SYSROOT ${USBHAL_SYSROOT} ABSOLUTE)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES USBHAL_SYSROOT)
if(NOT EXISTS ${CMAKE_SYSROOT}/usr)
    message(FATAL_ERROR "There is no sysroot in ${CMAKE_SYSROOT}: make it with Scripts/sysroot")
endif()

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # g++ notes what g++ before 7 called otherwise
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L ${CMAKE_SYSROOT})

# Programs come from the machine that builds, all else from the sysroot.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
