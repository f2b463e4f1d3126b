#!/usr/bin/env bash
# Test fixture setup: builds the C# fixture assemblies and the peer tool
# (dotnet-tests.slnx) into OUT, once per test run; later runs reuse the
# outputs while no source changed. Exits 77 (ctest: skipped) when the .NET
# SDK is not installed.
#
#   build_fixtures.sh SOURCE_DIR OUT_DIR
set -euo pipefail
src=$1 out=$2
export DOTNET_CLI_TELEMETRY_OPTOUT=1 DOTNET_NOLOGO=1 DOTNET_SKIP_FIRST_TIME_EXPERIENCE=1
if ! command -v dotnet >/dev/null 2>&1; then
  echo "SKIP: the .NET SDK (dotnet) is not installed; the .NET reader tests need it to build their fixtures"
  exit 77
fi
stamp=$out/built.stamp
newer=$(find "$src" -newer "$stamp" -type f \( -name '*.cs' -o -name '*.csproj' -o -name '*.props' -o -name '*.slnx' \) \
         -print -quit 2>/dev/null || true)
if [ -f "$stamp" ] && [ -z "$newer" ]; then
  echo "fixtures up to date in $out"
  exit 0
fi
rm -f "$stamp"
mkdir -p "$out"
# Nothing needs a package feed; if a restore ever wants one, it stays offline.
sources=()
[ -d /opt/nuget/packages ] && sources=(--source /opt/nuget/packages)
if ! dotnet build "$src/dotnet-tests.slnx" --disable-build-servers -nologo -v:q -clp:ErrorsOnly \
     -p:QuarvelOut="$out" "${sources[@]}" >"$out/build.log" 2>&1; then
  cat "$out/build.log"
  exit 1
fi
dotnet "$out/bin/MetadataPeer/MetadataPeer.dll" --runtime-dir >"$out/runtime-dir"
touch "$stamp"
echo "built the fixtures into $out; shared framework: $(cat "$out/runtime-dir")"
