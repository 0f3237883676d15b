# 64-bit ARM.
set(skelda_processor arm64)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(skelda_triplet aarch64-linux-gnu)
set(skelda_emulator qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/Foreign.cmake)
