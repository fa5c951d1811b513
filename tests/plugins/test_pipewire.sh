#!/usr/bin/env bash
# Starts PipeWire headless with the filter-chain of docs/pipewire-kivbf-source.conf
# in a temporary runtime directory, looks for the "Beamformed microphone"
# source node and for every control of the LV2 plugin among its parameters.
# Exits 77 (skipped) when PipeWire is not installed.
#   test_pipewire.sh <source dir> <lv2 dir of the build>
# The daemon's configuration is the least one that serves clients: without
# module-access the daemon never grants a new client its permissions, keeps it
# "busy" and reads nothing from it, so every pw-cli call waits for ever.
set -u
source_dir=$1 lv2_dir=$2
command -v pipewire >/dev/null && command -v pw-cli >/dev/null && command -v pw-dump >/dev/null ||
  { echo "SKIP: pipewire or pipewire-bin not installed"; exit 77; }
runtime=$(mktemp -d) && chmod 700 "$runtime"
daemon=
trap '[[ -n $daemon ]] && { kill "$daemon" 2>/dev/null; wait "$daemon" 2>/dev/null; }; rm -rf "$runtime"' EXIT
{
  echo 'context.properties = { core.daemon = true core.name = pipewire-0 support.dbus = false }'
  echo 'context.spa-libs = { audio.convert.* = audioconvert/libspa-audioconvert support.* = support/libspa-support }'
  echo 'context.modules = ['
  echo '  { name = libpipewire-module-protocol-native } { name = libpipewire-module-access }'
  echo '  { name = libpipewire-module-client-node } { name = libpipewire-module-adapter }'
  echo '  { name = libpipewire-module-metadata }'
  sed -n '/^context.modules/,$p' "$source_dir/docs/pipewire-kivbf-source.conf" | sed '1d'
} > "$runtime/kivbf-test.conf"
export XDG_RUNTIME_DIR=$runtime PIPEWIRE_RUNTIME_DIR=$runtime LV2_PATH=$lv2_dir
timeout 40 pipewire -c "$runtime/kivbf-test.conf" > "$runtime/daemon.log" 2>&1 &
daemon=$!
for _ in $(seq 20); do
  sleep 0.5
  kill -0 "$daemon" 2>/dev/null || { echo "FAIL: pipewire exited:"; cat "$runtime/daemon.log"; exit 1; }
  nodes=$(timeout 5 pw-cli ls Node 2>&1)
  grep -A3 'node.description = "Beamformed microphone"' <<<"$nodes" | grep -q 'media.class = "Audio/Source"' &&
    break
done
grep -q 'media.class = "Audio/Source"' <<<"$nodes" ||
  { echo "FAIL: no 'Beamformed microphone' source:"; echo "$nodes"; cat "$runtime/daemon.log"; exit 1; }
# The filter-chain lists the plugin's control ports as node parameters "kivbf:<symbol>".
dump=$(timeout 5 pw-dump 2>&1)
for control in $(grep -o 'lv2:symbol "[a-z_]*"' "$source_dir/plugins/lv2/kivbf.ttl" | cut -d'"' -f2); do
  [[ $control =~ ^(in_l|in_r|out|latency)$ ]] && continue
  grep -q "\"kivbf:$control\"" <<<"$dump" || { echo "FAIL: control $control not among the node's parameters"; exit 1; }
done
echo "node and controls found"
