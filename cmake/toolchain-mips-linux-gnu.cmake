# Cross build for big-endian MIPS routers with Debian's mips-linux-gnu
# toolchain (packages g++-mips-linux-gnu and qemu-user).
#
#   cmake -S . -B build-mips -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mips-linux-gnu.cmake
#
# Test programs run under qemu-mips (ctest and test discovery use the
# emulator below). GoogleTest is built from the sources in
# /usr/src/googletest along with the project, as no MIPS build of it is
# packaged.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)

set(SMSGW_CROSS_TRIPLET mips-linux-gnu)
set(SMSGW_CROSS_SYSROOT /usr/${SMSGW_CROSS_TRIPLET})

set(CMAKE_C_COMPILER ${SMSGW_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${SMSGW_CROSS_TRIPLET}-g++)
set(CMAKE_STRIP ${SMSGW_CROSS_TRIPLET}-strip CACHE FILEPATH "strip for the target")

# 64-bit file offsets and inode numbers: without them readdir() and stat()
# of a 32-bit program fail with EOVERFLOW on file systems that hand out
# 64-bit values (seen under qemu on 64-bit hosts, possible on large media).
# A definition rather than *_FLAGS_INIT, which a build directory configured
# before keeps ignoring from its cache.
add_compile_definitions(_FILE_OFFSET_BITS=64)

set(CMAKE_FIND_ROOT_PATH ${SMSGW_CROSS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# No binfmt_misc registration is assumed: every target program is started
# through the emulator explicitly.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mips;-L;${SMSGW_CROSS_SYSROOT})

set(SMSGW_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest sources to cross-build")
set(CMAKE_PROJECT_smsgw_INCLUDE ${CMAKE_CURRENT_LIST_DIR}/cross-project.cmake)
