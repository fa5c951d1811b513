#!/usr/bin/env bash
# Starts PipeWire headless with the filter-chain of docs/pipewire-kivbf-source.conf
# in a temporary runtime directory and looks for the "Beamformed microphone"
# node. Exits 77 (skipped) when PipeWire cannot serve clients on this machine.
#   test_pipewire.sh <source dir> <lv2 dir of the build>
set -u
source_dir=$1 lv2_dir=$2
command -v pipewire >/dev/null && command -v pw-cli >/dev/null || { echo "SKIP: pipewire not installed"; exit 77; }
runtime=$(mktemp -d) && chmod 700 "$runtime"
trap 'kill "$daemon" 2>/dev/null; wait "$daemon" 2>/dev/null; rm -rf "$runtime"' EXIT
# A daemon with only what a filter-chain needs, plus the documented module.
{
  echo 'context.properties = { core.daemon = true core.name = pipewire-0 support.dbus = false }'
  echo 'context.spa-libs = { audio.convert.* = audioconvert/libspa-audioconvert support.* = support/libspa-support }'
  echo 'context.modules = ['
  echo '  { name = libpipewire-module-protocol-native } { name = libpipewire-module-client-node }'
  echo '  { name = libpipewire-module-adapter }'
  sed -n '/^context.modules/,$p' "$source_dir/docs/pipewire-kivbf-source.conf" | sed '1d'
} > "$runtime/kivbf-test.conf"
export XDG_RUNTIME_DIR=$runtime PIPEWIRE_RUNTIME_DIR=$runtime LV2_PATH=$lv2_dir
timeout 30 pipewire -c "$runtime/kivbf-test.conf" > "$runtime/daemon.log" 2>&1 &
daemon=$!
for _ in 1 2 3 4 5; do
  sleep 1
  nodes=$(timeout 4 pw-cli ls Node 2>&1); status=$?
  grep -q 'Beamformed microphone' <<<"$nodes" && { echo "node found"; exit 0; }
done
if ! kill -0 "$daemon" 2>/dev/null; then
  echo "FAIL: pipewire exited:"; cat "$runtime/daemon.log"; exit 1
fi
if [[ $status -eq 124 ]]; then
  echo "SKIP: pipewire runs but answers no client here (pw-cli ls Node timed out); daemon log:"
  cat "$runtime/daemon.log"; exit 77
fi
echo "FAIL: no 'Beamformed microphone' node:"; echo "$nodes"; cat "$runtime/daemon.log"; exit 1
