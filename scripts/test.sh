#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the project and runs all its tests; installs what is missing for that.
#
#   scripts/test.sh [PRESET] [CTEST OPTION...]    PRESET: see CMakePresets.json; dev when none is named
set -euo pipefail
cd "$(dirname "$0")/.."

preset=dev
if (($# > 0)) && [[ $1 != -* ]]; then
    preset=$1
    shift
fi

scripts/setup.sh
cmake --preset "$preset"
cmake --build --preset "$preset"
ctest --preset "$preset" --parallel "$(nproc)" "$@"
