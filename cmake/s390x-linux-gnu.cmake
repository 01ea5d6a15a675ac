# Cross build for s390x: cmake -DCMAKE_TOOLCHAIN_FILE=cmake/s390x-linux-gnu.cmake
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(QUELVANE_TRIPLET s390x-linux-gnu)
set(QUELVANE_QEMU qemu-s390x)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
