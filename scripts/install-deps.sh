#!/usr/bin/env bash
# Installs what the build, the tests and the demo need on Debian 12.
# Idempotent: apt is only called when a package is missing.
set -euo pipefail
pkgs=(cmake make g++ pkg-config python3 util-linux dpkg-dev groff-base
      googletest libgtest-dev libgmock-dev libbenchmark-dev
      nlohmann-json3-dev libcli11-dev libyaml-cpp-dev clang libclang-rt-14-dev)
# The test command also checks the Debian packages with lintian and reads
# the metrics back with the Prometheus client library's parser; the
# configuration documents are checked against their JSON Schema, read back
# with PyYAML and applied through the Ansible collection.
# scripts/coverage.sh runs the same tests and prints its figures with gcovr.
case "${1:-}" in
  test|coverage)
    pkgs+=(lintian python3-prometheus-client python3-jsonschema python3-yaml ansible-core)
    [ "$1" = coverage ] && pkgs+=(gcovr) ;;
esac
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}"
fi
