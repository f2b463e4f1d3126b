#!/usr/bin/env bash
# Rewrites the explicit source list of every library layer from the .cpp
# files in its folder (run after adding or removing a source file).
set -euo pipefail
cd "$(dirname "$0")/../src/jitreader"
for dir in */; do
  layer=${dir%/}
  [ -f "$layer/CMakeLists.txt" ] || continue
  {
    echo "set(QUARVEL_${layer}_SOURCES"
    for f in "$layer"/*.cpp; do
      [ -e "$f" ] && echo "  \${CMAKE_CURRENT_SOURCE_DIR}/$(basename "$f")"
    done
    echo "  PARENT_SCOPE)"
  } >"$layer/CMakeLists.txt"
done
