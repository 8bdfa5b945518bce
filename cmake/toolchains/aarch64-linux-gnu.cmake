# Cross-build for the unit's 64-bit ARM processor with Debian's cross compiler and its
# ":arm64" libraries (scripts/setup --arm64 installs both). protoc runs natively; the tests
# run under qemu-aarch64 against the native mosquitto broker.
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# The multiarch libraries live under /usr/lib/aarch64-linux-gnu beside the native ones;
# pkg-config must not fall back to the native .pc files.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
set(Protobuf_PROTOC_EXECUTABLE /usr/bin/protoc CACHE FILEPATH "native protoc")

# No -L: with Debian's arm64 libraries installed the loader finds them itself, while
# "-L /usr/aarch64-linux-gnu" mixes two C libraries and hangs.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
