# shellcheck shell=bash
# Sourced by scripts/test and scripts/package, from the top of the source tree.

# check_consumer PREFIX DIR: builds examples/consumer in DIR against the murntavi installed
# under PREFIX, once with CMake and once with pkg-config. Linked with --as-needed, the program
# names only libmurntavi, and it runs without LD_LIBRARY_PATH: the installed libraries must
# find each other by themselves.
check_consumer() {
    local prefix=$1 dir=$2 pcdir libdir flags
    rm -rf "$dir"
    cmake -S examples/consumer -B "$dir" -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_EXE_LINKER_FLAGS=-Wl,--as-needed >/dev/null
    cmake --build "$dir" >/dev/null
    env -u LD_LIBRARY_PATH "$dir/consumer"
    pcdir=$(dirname "$(find "$prefix" -name murntavi.pc -print -quit)")
    libdir=$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=libdir murntavi)
    flags=$(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs murntavi)
    # shellcheck disable=SC2086
    c++ -std=c++17 -o "$dir/consumer-pc" examples/consumer/main.cpp -Wl,--as-needed $flags \
        -Wl,-rpath,"$libdir"
    env -u LD_LIBRARY_PATH "$dir/consumer-pc"
}
