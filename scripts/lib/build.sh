# Configures and builds presets.
# shellcheck shell=bash

cores=$(nproc)

# build_preset PRESET [TARGET...]: configures quietly, then builds with ninja's own progress display.
build_preset() {
    local preset=$1
    shift
    local log=$deps_dir/configure-$preset.log
    (cd "$project_dir" && quietly "$log" cmake --preset "$preset") \
        || fail "CMake could not configure the build '$preset'" \
            "the complete output is in $log" \
            "if it mentions an old cache, remove build/$preset and try again"
    cmake --build "$project_dir/build/$preset" -j "$cores" ${1:+--target "$@"} \
        || fail "the build '$preset' failed; the compiler's messages are above"
}
