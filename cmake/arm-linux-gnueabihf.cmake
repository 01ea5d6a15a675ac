# Cross build for armhf: cmake -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
set(CMAKE_SYSTEM_PROCESSOR arm)
set(QUELVANE_TRIPLET arm-linux-gnueabihf)
set(QUELVANE_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
# GCC notes that std::map passes iterators as GCC 7.1 began to: nothing we
# call crosses that boundary, and the note buries real warnings.
string(APPEND CMAKE_CXX_FLAGS_INIT " -Wno-psabi")
