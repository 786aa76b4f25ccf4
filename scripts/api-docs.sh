#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Writes the reference of the public headers to build/api-docs/html; fails when anything public is not documented
# or a link leads nowhere.
set -euo pipefail
cd "$(dirname "$0")/.."

rm -rf build/api-docs
mkdir -p build
PROJECT_VERSION=$(sed -n 's/^project(.* VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
export PROJECT_VERSION
if ! warnings=$(doxygen docs/Doxyfile 2>&1) || [[ -n $warnings ]]; then
    printf '%s\n' "$warnings" >&2
    echo "api-docs: Doxygen is not content with the comments of the public headers" >&2
    exit 1
fi
echo "api-docs: $(find build/api-docs/html -name 'class*.html' -o -name 'struct*.html' | wc -l) pages, see build/api-docs/html/index.html"
