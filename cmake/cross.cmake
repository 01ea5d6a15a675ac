# What the three cross toolchains share. The including file sets
# CMAKE_SYSTEM_PROCESSOR, QUELVANE_TRIPLET and QUELVANE_QEMU.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${QUELVANE_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${QUELVANE_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${QUELVANE_TRIPLET})

# zlib, libcrypto and GoogleTest for the target, unpacked from Debian's own
# packages by scripts/cross-sysroot; the C and C++ run-times come with the
# cross compiler under /usr/<triplet>.
get_filename_component(QUELVANE_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build-cross/sysroot-${QUELVANE_TRIPLET}" ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH ${QUELVANE_SYSROOT} /usr/${QUELVANE_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# OpenSSL's configuration header lies in the multiarch directory.
set(CMAKE_CXX_FLAGS_INIT "-isystem ${QUELVANE_SYSROOT}/usr/include/${QUELVANE_TRIPLET}")

# No binfmt_misc here: test programs run under the emulator explicitly. The
# target's ISA-L, which the tool loads at run time, is found in the sysroot.
set(CMAKE_CROSSCOMPILING_EMULATOR ${QUELVANE_QEMU} -L /usr/${QUELVANE_TRIPLET}
    -E LD_LIBRARY_PATH=${QUELVANE_SYSROOT}/usr/lib/${QUELVANE_TRIPLET})
