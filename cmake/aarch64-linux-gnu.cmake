# Cross build for aarch64: cmake -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(QUELVANE_TRIPLET aarch64-linux-gnu)
set(QUELVANE_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
