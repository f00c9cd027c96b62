#!/usr/bin/env bash
# outside_projects.sh CC CXX: builds programs outside the tree against an installed tree that has
# been moved: with the shared and the static library, in C, in C++ and with the header for C++20, by
# pkg-config and by CMake. Each takes a frame from the installed worker.
set -euo pipefail
# shellcheck source=tests/install/common.sh
source "$(dirname "$0")/common.sh"
CC=$1
CXX=$2
picture=$SOURCE_DIR/tests/data/jpeg/peacock-420.jpg
outside=$SOURCE_DIR/tests/install/outside

cmake --install "$BUILD_DIR" --prefix "$scratch/first" >/dev/null
prefix=$scratch/moved
mv "$scratch/first" "$prefix"
library_dir=$(dirname "$(find "$prefix" -name libstillimage_client.so)")
export PKG_CONFIG_PATH=$library_dir/pkgconfig

# --- the worker -------------------------------------------------------------------------------------

mkdir -m 700 "$scratch/run" "$scratch/state"
export XDG_RUNTIME_DIR=$scratch/run XDG_STATE_HOME=$scratch/state
"$prefix/bin/stillimage" --file "$picture" --sock "$scratch/sock" --no-autoshutdown \
    2>"$scratch/messages" &
worker=$!
end_worker() {
    kill "$worker" 2>/dev/null || true
    wait "$worker" || true
    remove_scratch
}
trap end_worker EXIT
"$prefix/bin/stillimage-client" "$scratch/sock" wait --timeout 30
expected_size=$("$prefix/bin/stillimage-client" "$scratch/sock" status \
    | sed 's/.*"image info": {[^}]*"height": \([0-9]*\), "width": \([0-9]*\)}.*/\2x\1/')

expected=
# runs_well PROGRAM: expects that it takes the picture and prints the same as the programs before
# it.
runs_well() {
    local printed
    printed=$("$@" "$scratch/sock") || fault "failed: $*"
    [ -n "$expected" ] || expected=$printed
    expect_same "output of $*" "$expected" "$printed"
}

# --- by pkg-config ----------------------------------------------------------------------------------

cp "$outside/viewer.c" "$scratch/viewer.c"
cp "$outside/viewer.c" "$scratch/viewer.cpp"
cp "$outside/viewer_cxx20.cpp" "$scratch/viewer_cxx20.cpp"
cd "$scratch"
read -ra flags < <(pkg-config --cflags stillimage-client)
read -ra libraries < <(pkg-config --libs stillimage-client)
read -ra static_libraries < <(pkg-config --static --libs stillimage-client)
warnings=(-Wall -Wextra -Wshadow -Werror)

"$CC" -std=c11 "${warnings[@]}" "${flags[@]}" viewer.c -o c-shared "${libraries[@]}"
"$CXX" "${warnings[@]}" "${flags[@]}" viewer.cpp -o cxx-shared "${libraries[@]}"
"$CXX" -std=c++20 "${warnings[@]}" -Wconversion "${flags[@]}" viewer_cxx20.cpp -o cxx20-shared \
    "${libraries[@]}"
# Only this library is linked statically; the C run-time library stays shared.
"$CC" -std=c11 "${warnings[@]}" "${flags[@]}" viewer.c -o c-static \
    "${static_libraries[@]/#-lstillimage_client/-l:libstillimage_client.a}"
"$CXX" "${warnings[@]}" "${flags[@]}" viewer.cpp -o cxx-static \
    "${static_libraries[@]/#-lstillimage_client/-l:libstillimage_client.a}"
"$CXX" -std=c++20 "${warnings[@]}" "${flags[@]}" viewer_cxx20.cpp -o cxx20-static \
    "${static_libraries[@]/#-lstillimage_client/-l:libstillimage_client.a}"
for program in c cxx cxx20; do
    runs_well env LD_LIBRARY_PATH="$library_dir" "./$program-shared"
    runs_well "./$program-static"
done

# --- by CMake ---------------------------------------------------------------------------------------

cmake -S "$outside" -B by-cmake -G Ninja -DCMAKE_C_COMPILER="$CC" -DCMAKE_CXX_COMPILER="$CXX" \
    -DCMAKE_PREFIX_PATH="$prefix" >cmake.log 2>&1 || { cat cmake.log; fault "cmake failed"; }
cmake --build by-cmake >cmake.log 2>&1 || { cat cmake.log; fault "the build by CMake failed"; }
for program in c cxx cxx20; do
    runs_well "by-cmake/$program-stillimage_client"
    runs_well "by-cmake/$program-stillimage_client_static"
done

# --- which programs need the shared library ---------------------------------------------------------

needs_library() {
    readelf -d "$1" | grep -q 'NEEDED.*libstillimage_client\.so\.1\]'
}
for program in c-shared cxx-shared cxx20-shared by-cmake/c-stillimage_client; do
    needs_library "$program" || fault "$program does not need the shared library"
done
for program in c-static cxx-static cxx20-static by-cmake/c-stillimage_client_static; do
    ! needs_library "$program" || fault "$program needs the shared library"
done
expect_same "size that the programs saw" "$expected_size" "${expected% *}"

"$prefix/bin/stillimage-client" "$scratch/sock" quit
wait "$worker" || fault "the worker ended with $?"
finish
