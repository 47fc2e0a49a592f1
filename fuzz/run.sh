#!/usr/bin/env bash
# Runs one libFuzzer target for a while: bash fuzz/run.sh BUILD_DIR TARGET SECONDS
# (TARGET: cube_lut, 3dl_lut, entity_json, pipeline_json, scene). The corpus
# grows in BUILD_DIR/fuzz-corpus/TARGET, findings land in BUILD_DIR/fuzz-findings.
set -euo pipefail
build=${1:?build folder}
target=${2:?target}
seconds=${3:-600}
here=$(cd "$(dirname "$0")" && pwd)
testdata="$here/../../shared/testdata"
case "$target" in
  cube_lut | 3dl_lut) seeds="$testdata/lut" ;;
  entity_json) seeds="$here/seeds/entity" ;;
  pipeline_json) seeds="$here/seeds/pipeline" ;;
  scene) seeds="$here/seeds/scene" ;;
  *) echo "unknown target $target" >&2; exit 2 ;;
esac
corpus="$build/fuzz-corpus/$target"
findings="$build/fuzz-findings/$target"
mkdir -p "$corpus" "$findings"
exec "$build/fuzz/fuzz_$target" -max_total_time="$seconds" -rss_limit_mb=4096 -timeout=30 \
  -artifact_prefix="$findings/" "$corpus" "$seeds"
