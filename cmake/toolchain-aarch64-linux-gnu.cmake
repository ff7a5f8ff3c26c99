# Cross build for the aircraft's AArch64 Linux computer with Debian's aarch64-linux-gnu
# compiler. The arm64 libraries come from Debian multiarch (scripts/setup-deps --arm64): they
# live in /usr/lib/aarch64-linux-gnu beside the amd64 ones and share /usr/include, so the
# search root stays "/" and the library architecture alone selects the arm64 copies.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(ORCA_CROSS_TRIPLET aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${ORCA_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ORCA_CROSS_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${ORCA_CROSS_TRIPLET})

# Never let a host library or package config stand in for a missing arm64 one.
set(CMAKE_SYSTEM_IGNORE_PATH /usr/lib/x86_64-linux-gnu /lib/x86_64-linux-gnu)

# pkg-config must read the arm64 .pc files only.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${ORCA_CROSS_TRIPLET}/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Built programs run under qemu-user. Multiarch installs the arm64 loader at
# /lib/ld-linux-aarch64.so.1, where qemu finds it without a -L sysroot. The static build of
# qemu is the one to use: a dynamic one would load the simulated board's host preload itself.
# It also tells the programs it runs (-E) which emulator starts their arm64 children, as the
# kernel cannot without binfmt_misc.
if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
    find_program(ORCA_QEMU_AARCH64 qemu-aarch64-static)
    if(ORCA_QEMU_AARCH64)
        set(CMAKE_CROSSCOMPILING_EMULATOR
            ${ORCA_QEMU_AARCH64} -E ORCA_SIM_QEMU_AARCH64=${ORCA_QEMU_AARCH64})
    endif()
endif()
