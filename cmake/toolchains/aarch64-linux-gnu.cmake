# Cross build for arm64 Linux with Debian's aarch64-linux-gnu toolchain and the arm64 (multiarch)
# builds of the Debian packages. Test programs run under qemu-aarch64, which finds the arm64
# loader and libraries of the multiarch installation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
