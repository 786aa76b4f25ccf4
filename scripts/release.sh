#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Makes a release ready: checks version, changelog and binary interface, builds packages and documents, and says what is
# left to do by hand. Changes nothing but what lies under build/.
#
#   scripts/release.sh
set -euo pipefail
cd "$(dirname "$0")/.."

fail()
{
    echo "release: $*" >&2
    exit 1
}

version=$(sed -n 's/^project(.* VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
[[ -n $version ]] || fail "CMakeLists.txt names no version"
[[ -z $(git status --porcelain) ]] || fail "there are changes that are not committed"
if git rev-parse -q --verify "refs/tags/v$version" >/dev/null; then
    fail "v$version has been released already: raise the version in CMakeLists.txt"
fi

# The newest section is this version's, says something, and bears a date that is not in the future.
section=$(sed -n '/^## \[/,$p' CHANGELOG.md | sed '1!{/^## \[/,$d}')
date=$(sed -n "1s/^## \[$version\] - \([0-9-]*\)$/\1/p" <<<"$section")
[[ -n $date ]] || fail "the first section of CHANGELOG.md is not '## [$version] - DATE'"
[[ ! $date > $(date +%F) ]] || fail "CHANGELOG.md dates $version in the future"
grep -q '^- ' <<<"$section" || fail "CHANGELOG.md says nothing of $version"
last=$(find docs/abi -mindepth 1 -type d -printf '%f\n' | sort -V | tail -n 1)
[[ $(printf '%s\n' "$last" "$version" | sort -V | tail -n 1) == "$version" ]] || fail "docs/abi describes $last, which is newer"
echo "release: $version of $date; the last description of the binary interface is that of $last"

scripts/check-docs.sh static
scripts/check-abi.sh
scripts/check-packages.sh
scripts/api-docs.sh

cat <<END
release: $version is ready. By hand:
  1. have .ci/run pass on a machine of its own
  2. scripts/check-abi.sh --keep, and commit docs/abi/$version
  3. git tag -s -a v$version -m "security_privacy $version", and push the tag
  4. publish build/packages/made/*.deb and build/api-docs/html
  5. raise the version in CMakeLists.txt and in the README, and begin its section in CHANGELOG.md
END
