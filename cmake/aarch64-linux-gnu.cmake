# Cross build for 64-bit Arm with Debian's cross compiler and arm64
# multiarch libraries; binaries run under qemu-aarch64.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
# The arm64 loader and libraries installed through multiarch live under /.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /)
# pkg-config answers for arm64, not for the build machine.
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
