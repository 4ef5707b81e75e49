# Another processor, with the cross compiler that Debian has for it. Its programs, as the tests are,
# run under QEMU's user-mode emulation.
#
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain.cmake -DTRIPLET=arm-linux-gnueabihf ...
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TRIPLET)
if(NOT TRIPLET)
  message(FATAL_ERROR "Set TRIPLET, for example with -DTRIPLET=arm-linux-gnueabihf")
endif()
set(CMAKE_CXX_COMPILER ${TRIPLET}-g++)
set(CMAKE_SYSTEM_NAME Linux)
string(REGEX REPLACE "-.*" "" CMAKE_SYSTEM_PROCESSOR ${TRIPLET})

# Libraries come from the cross compiler's tree only: a host that also has Debian's packages for the
# target installed would mix two versions of glibc in one process.
set(sysroot /usr/${TRIPLET})
string(REPLACE i686 i386 emulator qemu-${CMAKE_SYSTEM_PROCESSOR})
string(REPLACE powerpc ppc emulator ${emulator})
set(CMAKE_CROSSCOMPILING_EMULATOR
  ${emulator} -L ${sysroot} -E LD_LIBRARY_PATH=${sysroot}/lib)

set(CMAKE_FIND_ROOT_PATH ${sysroot})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
