#!/usr/bin/env bash
# quick_build_test.sh TREE FOLDER: a build as on a machine without a compiler cache, whose common
# headers are precompiled, is configured, and compiles a program, a library and a test without a
# warning.
set -euo pipefail
cmake -S "$1" -B "$2" -G Ninja --log-level=WARNING -DCMAKE_BUILD_TYPE=Release -DORMEL_WERROR=ON \
  -DORMEL_BENCH=OFF \
  -DCCACHE_PROGRAM=OFF # set, so that it is not looked for
for target in precompiled_library precompiled_program precompiled_tests; do
  grep -q "$target" "$2/build.ninja" || { echo "FAILED: no $target"; exit 1; }
done
cmake --build "$2" --target getcfg mibservice \
  tests/unit/CMakeFiles/fenro_unit_tests.dir/platform/gate_test.cpp.o
