#!/usr/bin/env bash
# Runs the peer tool (System.Reflection.Metadata) and quarvel_dotnet_dump over
# the same assemblies and requires byte-identical output: every MethodDef
# token with its declaring type, name, signature, return type, RVA and IL
# size, every PDB document and every sequence point.
#
#   compare.sh OUT_DIR NAME DUMP [--expect PATTERN]... -- ASSEMBLY...
#   compare.sh OUT_DIR NAME DUMP -- --framework      (every *.dll of the installed shared
#                                                    frameworks, the newest version of each)
# Assemblies are relative to OUT_DIR/bin. Each --expect pattern (grep -E)
# must match our output: the fixtures really contain what they claim to.
set -euo pipefail
out=$1 name=$2 dump=$3
shift 3
expects=()
while [ $# -gt 0 ] && [ "$1" != -- ]; do
  [ "$1" = --expect ] && expects+=("$2") && shift 2 && continue
  echo "unknown option $1" >&2
  exit 2
done
shift
if ! command -v dotnet >/dev/null 2>&1 || [ ! -f "$out/built.stamp" ]; then
  echo "SKIP: the .NET SDK (dotnet) is not installed, or the .NET fixtures were not built"
  exit 77
fi
export DOTNET_CLI_TELEMETRY_OPTOUT=1 DOTNET_NOLOGO=1 DOTNET_SKIP_FIRST_TIME_EXPERIENCE=1
assemblies=()
if [ "${1:-}" = --framework ]; then
  # runtime-dir is <root>/shared/Microsoft.NETCore.App/<version>.
  shared=$(dirname "$(dirname "$(cat "$out/runtime-dir")")")
  for framework in "$shared"/*/; do
    newest=$(ls -d "$framework"*/ | sort -V | tail -1)
    assemblies+=("$newest"*.dll)
  done
else
  for a in "$@"; do assemblies+=("$out/bin/$a"); done
fi
peer=$out/$name.peer.txt ours=$out/$name.ours.txt
dotnet "$out/bin/MetadataPeer/MetadataPeer.dll" "${assemblies[@]}" >"$peer"
"$dump" "${assemblies[@]}" >"$ours" 2>"$out/$name.ours.log"
methods=$(grep -c '^method' "$ours" || true)
points=$(grep -c '^point' "$ours" || true)
status=0
if ! cmp -s "$peer" "$ours"; then
  echo "MISMATCH between the peer (<) and our readers (>) over ${#assemblies[@]} assemblies:"
  diff "$peer" "$ours" | head -40 || true
  status=1
fi
for pattern in "${expects[@]}"; do
  if ! grep -Eq -- "$pattern" "$ours"; then
    echo "the fixtures lack an expected construct: $pattern"
    status=1
  fi
done
[ $status -eq 0 ] && echo "agree on ${#assemblies[@]} assemblies: $methods methods, $points sequence points"
exit $status
