# The speaker's board: 32-bit ARM Linux, hard-float, Cortex-A with NEON. Debian's cross compiler
# over a sysroot of Debian armhf packages (scripts/build-armhf.sh unpacks one); ARM programs that the
# build or CTest runs go through qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

set(ORVANDELDSP_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build-armhf/sysroot"
  CACHE PATH "armhf sysroot unpacked from Debian packages")
get_filename_component(sysroot "${ORVANDELDSP_ARMHF_SYSROOT}" ABSOLUTE)
set(CMAKE_SYSROOT "${sysroot}")

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# NEON with VFPv3 runs on every Cortex-A that has NEON (A7, A8, A9, A15 ...). neon-vfpv4 would add only
# fused multiply-add, which the coefficient designs must not use anyway to give x86-64's bits.
set(CMAKE_C_FLAGS_INIT "-mfpu=neon")
set(CMAKE_CXX_FLAGS_INIT "-mfpu=neon")

set(CMAKE_FIND_ROOT_PATH "${sysroot}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads the sysroot's .pc files and prefixes the paths they give.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${sysroot}")
set(ENV{PKG_CONFIG_LIBDIR}
  "${sysroot}/usr/lib/arm-linux-gnueabihf/pkgconfig:${sysroot}/usr/lib/pkgconfig:${sysroot}/usr/share/pkgconfig")

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L "${sysroot}")
