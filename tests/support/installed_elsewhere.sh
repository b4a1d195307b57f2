#!/bin/sh
# Installs a build into a folder that it was not made for, and starts every program there.
#
#   installed_elsewhere.sh BUILD PROGRAM...    the programs that must be there
set -eu
build=$1
shift
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
for program; do
  env -u LD_LIBRARY_PATH "$prefix/bin/$program" --version
done
ls "$prefix/bin"
[ "$(find "$prefix/bin" -type f | wc -l)" -eq $# ] || { echo "another program is installed" >&2; exit 1; }
