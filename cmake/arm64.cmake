# Compiles for 64-bit ARM with Debian's cross compiler, against the arm64 packages of the same system: they lie side by
# side with its own, so that CMake finds them by the architecture's folder. Tests run under qemu's user mode.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-aarch64)
