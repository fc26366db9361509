#!/usr/bin/env bash
# Builds the fuzz targets for a service that fuzzes on machines of its own: into $OUT, each with its inputs
# (TARGET_seed_corpus.zip), its dictionary (TARGET.dict) and the libraries that it loads. Such a service says in the environment what it
# wants; with clang's own engine the same is
#   OUT=/tmp/out WORK=/tmp/work CC=clang CXX=clang++ LIB_FUZZING_ENGINE=-fsanitize=fuzzer \
#       CFLAGS='-O1 -g -fsanitize=address,fuzzer-no-link' CXXFLAGS="$CFLAGS" fuzz/build.sh [TARGET...]
# Needs zip, and what `scripts/prepare --list fuzz` names.
set -euo pipefail
cd "$(dirname "$0")/.."
: "${OUT:?say where the fuzzers go}" "${WORK:?name a folder to build in}" "${LIB_FUZZING_ENGINE:?say what drives the fuzzers}"
export CXXFLAGS="${CXXFLAGS:-} -w"           # warnings of another compiler are no reason to end
export LDFLAGS="${LDFLAGS:-} -Wl,--disable-new-dtags" # so that a library finds the ones that it loads beside itself, too
build=$WORK/appsync
mkdir -p "$OUT/lib"

cmake -G Ninja -S . -B "$build" -DAPPSYNC_FUZZ=ON -DAPPSYNC_FUZZ_ENGINE="$LIB_FUZZING_ENGINE" -DAPPSYNC_BENCH=OFF \
      -DCMAKE_BUILD_RPATH='$ORIGIN/lib'
targets=("$@")
[ $# -gt 0 ] || mapfile -t targets < <(ls fuzz/corpus)
cmake --build "$build" --target "${targets[@]/%/_fuzzer}"

for target in "${targets[@]}"; do
    cp "$build/bin/${target}_fuzzer" "$OUT/$target"
    [ ! -f "$build/bin/$target.dict" ] || cp "$build/bin/$target.dict" "$OUT/"
    rm -f "$OUT/${target}_seed_corpus.zip"
    zip -jqr "$OUT/${target}_seed_corpus.zip" "fuzz/corpus/$target"
    # Those of the C library belong to the machine.
    ldd "$build/bin/${target}_fuzzer" | awk '$3 ~ /^\// && $1 !~ /^(libc|libm|libdl|librt|libpthread|libresolv)\./ {print $3}' |
        xargs -r cp -Lt "$OUT/lib"
done
