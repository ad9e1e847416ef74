# Release build for 64-bit Windows with clang and lld on the same MinGW-w64 target as the gcc build:
# the same headers, libstdc++ (posix thread flavour) and import libraries, but CodeView debug
# information and a PDB beside each linked binary, which WinDbg and Visual Studio read from a crash dump.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_CXX_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
set(CMAKE_SYSROOT /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# MinGW's gcc keeps libstdc++ and libgcc per thread flavour; the posix one has std::thread.
file(GLOB WQ_GCC_DIRS LIST_DIRECTORIES true /usr/lib/gcc/x86_64-w64-mingw32/*-posix)
list(SORT WQ_GCC_DIRS COMPARE NATURAL)
list(GET WQ_GCC_DIRS -1 WQ_GCC_DIR)
set(WQ_GCC_CXX ${WQ_GCC_DIR}/include/c++)
set(CMAKE_CXX_FLAGS_INIT
    "-nostdinc++ -isystem ${WQ_GCC_CXX} -isystem ${WQ_GCC_CXX}/x86_64-w64-mingw32 -isystem ${WQ_GCC_CXX}/backward")
# CodeView, not DWARF: the only debug information Windows debuggers read.
set(CMAKE_C_FLAGS_INIT "-gcodeview")
string(APPEND CMAKE_CXX_FLAGS_INIT " -gcodeview")
# lld writes <binary>.pdb (an empty --pdb= names it after the output) and a CodeView debug-directory
# entry that names it by file name only (%_PDB%), as shipped binaries do: debuggers look it up by name
# and signature on their symbol path, and the build machine's folders stay out of the binary.
# Nothing is stripped.
# Compile-only flags reach the link line too; clang would warn about each.
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-fuse-ld=lld -L${WQ_GCC_DIR} -Wl,--pdb= -Wl,--Xlink=-pdbaltpath:%_PDB% -Wno-unused-command-line-argument")
endforeach()
# gcc's posix flavour links winpthread implicitly (libstdc++'s threads sit on it); clang's driver does not.
set(CMAKE_C_STANDARD_LIBRARIES "-lpthread")
set(CMAKE_CXX_STANDARD_LIBRARIES "-lpthread")

set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine-test.sh)
