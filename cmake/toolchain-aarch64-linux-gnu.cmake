# Cross-build for the vehicle's AArch64 Linux with Debian's g++-aarch64-linux-gnu; programs run under
# qemu-aarch64 (Debian's qemu-user) with the target's system libraries from /usr/aarch64-linux-gnu.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_NM aarch64-linux-gnu-nm CACHE FILEPATH "")
set(CMAKE_READELF aarch64-linux-gnu-readelf CACHE FILEPATH "")

# The cross toolchain's own tree, then the system's for Debian's multiarch :arm64 packages (sensorctl's
# libraries in /usr/lib/aarch64-linux-gnu) and the architecture-independent header-only ones.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The loader comes from the cross tree, so the C library must too: the system's :arm64 one (a
# dependency of the multiarch packages) may be another build, and ld.so would find it first. Forced,
# so that build directories configured before keep no emulator line that hangs.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /usr/aarch64-linux-gnu -E LD_LIBRARY_PATH=/lib CACHE STRING "" FORCE)
