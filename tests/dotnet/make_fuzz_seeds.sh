#!/usr/bin/env bash
# Seeds of the .NET fuzz targets, made from the compiler-built fixtures (and a
# few small assemblies of the installed shared framework, ReadyToRun ones):
#
#   make_fuzz_seeds.sh OUT_DIR DUMP SEED_DIR
#
# SEED_DIR/fuzz_dotnet_metadata gets assemblies, SEED_DIR/fuzz_dotnet_pdb the
# standalone PDB and the PDB embedded in the debug fixture. Nothing of this is
# committed: the fixtures are rebuilt from source.
set -euo pipefail
out=$1 dump=$2 seeds=$3
if [ ! -f "$out/built.stamp" ]; then
  echo "SKIP: the .NET fixtures were not built (is dotnet installed?)"
  exit 77
fi
rm -rf "$seeds"
mkdir -p "$seeds/fuzz_dotnet_metadata" "$seeds/fuzz_dotnet_pdb"
cp "$out"/bin/Embedded/*.dll "$out"/bin/Standalone/*.dll "$seeds/fuzz_dotnet_metadata/"
runtime=$(cat "$out/runtime-dir")
# (Read whole: `head` closing the pipe early would fail the script under pipefail.)
mapfile -t small < <(find "$runtime" -maxdepth 1 -name '*.dll' -size -40k | sort)
for f in "${small[@]:0:3}"; do cp "$f" "$seeds/fuzz_dotnet_metadata/"; done
cp "$out"/bin/Standalone/*.pdb "$seeds/fuzz_dotnet_pdb/"
"$dump" --embedded-pdb "$out/bin/Embedded/Quarvel.Fixtures.Embedded.dll" "$seeds/fuzz_dotnet_pdb/Embedded.pdb"
echo "seeds: $(ls "$seeds/fuzz_dotnet_metadata" | wc -l) assemblies, $(ls "$seeds/fuzz_dotnet_pdb" | wc -l) PDBs in $seeds"
