# Cross build for armhf: cmake -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
set(CMAKE_SYSTEM_PROCESSOR arm)
set(QUELVANE_TRIPLET arm-linux-gnueabihf)
set(QUELVANE_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
