# Configuring and building the presets.
# shellcheck shell=bash

cores=$(nproc)

# build_preset PRESET [TARGET...]: quiet while it configures, ninja's own progress while it builds.
build_preset() {
    local preset=$1
    shift
    local log=$deps_dir/configure-$preset.log
    (cd "$project_dir" && quietly "$log" cmake --preset "$preset") \
        || fail "CMake could not configure the build '$preset'" \
            "the whole output is in $log" \
            "if it speaks of an old cache, remove build/$preset and try again"
    cmake --build "$project_dir/build/$preset" -j "$cores" ${1:+--target "$@"} \
        || fail "the build '$preset' failed; the compiler's messages are above"
}
