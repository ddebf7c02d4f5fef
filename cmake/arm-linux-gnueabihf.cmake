# Cross build for 32-bit ARM (hard-float glibc) with Debian's cross toolchain; the test programs
# run under user-mode qemu against the cross sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(UTL_ARM_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${UTL_ARM_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${UTL_ARM_TRIPLE}-g++)

set(CMAKE_FIND_ROOT_PATH /usr/${UTL_ARM_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/${UTL_ARM_TRIPLE})
