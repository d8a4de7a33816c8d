# 32-bit ARM (hard float), with Debian's cross compiler and foreign packages; programs run under qemu's user emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)
# this compiler notes a change of its own calling conventions at each use of some standard templates
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
