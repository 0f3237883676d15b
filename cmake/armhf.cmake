# 32-bit ARM with hardware floating point: ARMv7.
set(skelda_processor armhf)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(skelda_triplet arm-linux-gnueabihf)
set(skelda_emulator qemu-arm)
# What compilers before version 7 did otherwise is of no interest.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include(${CMAKE_CURRENT_LIST_DIR}/Foreign.cmake)
