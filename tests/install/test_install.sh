#!/usr/bin/env bash
# Installs a built kivbf into a fresh prefix and builds and runs the examples
# against it, once through find_package(kivbf) and once through pkg-config.
#   test_install.sh <build dir> <source dir>
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
for file in include/AudioBfProcess.h lib*/libkivbf.* lib*/cmake/kivbf/kivbfConfig.cmake \
            lib*/pkgconfig/kivbf.pc; do
  compgen -G "$prefix/$file" >/dev/null || { echo "not installed: $file"; exit 1; }
done

echo "== find_package(kivbf)"
cmake -S "$source/examples" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/kivbf_c_example"
"$work/cmake/kivbf_cpp_example"

echo "== pkg-config"
pc_dir=$(dirname "$(compgen -G "$prefix/lib*/pkgconfig/kivbf.pc" | head -n1)")
mkdir "$work/pc"
PKG_CONFIG_PATH="$pc_dir" make -s -C "$source/examples" OUT="$work/pc" >/dev/null
"$work/pc/kivbf_c_example"
"$work/pc/kivbf_cpp_example"
