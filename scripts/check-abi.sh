#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Compares the binary interface of both libraries with that of the last release (docs/abi.md) and fails when programs
# that were linked against that one would break, unless the major version has changed since. Then it proves on a
# copy that the comparison notices a virtual function added in the middle of the interface.
set -euo pipefail
cd "$(dirname "$0")/.."
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

fail()
{
    echo "check-abi: $*" >&2
    exit 1
}

# build TREE BUILD: both libraries, with the debug information that the comparison reads.
build()
{
    {
        cmake -S "$1" -B "$2" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSECURITY_PRIVACY_BUILD_TESTS=OFF \
            -DSECURITY_PRIVACY_BUILD_TOOLS=OFF && cmake --build "$2"
    } >"$scratch/log" 2>&1 || { cat "$scratch/log" >&2; fail "$1 does not build"; }
}

# compare OLD_TREE OLD_BUILD NEW_TREE NEW_BUILD: 0 when nothing that was there has changed. Additions are no change.
compare()
{
    local library same=0
    for library in libsecurity_privacy.so platform/libvarn_platform.so; do
        abidiff --no-added-syms --headers-dir1 "$1/include" --headers-dir1 "$1/platform/include" \
            --headers-dir2 "$3/include" --headers-dir2 "$3/platform/include" "$2/$library" "$4/$library" || same=1
    done
    return "$same"
}

major_version()
{
    sed -n 's/^project(.* VERSION \([0-9]*\)\..*/\1/p' "$1/CMakeLists.txt"
}

now=build/dev
{ cmake --preset dev && cmake --build --preset dev --target security_privacy varn_platform; } >"$scratch/log" 2>&1 ||
    { cat "$scratch/log" >&2; fail "the tree does not build"; }

if last=$(git describe --tags --abbrev=0 --match 'v[0-9]*' 2>/dev/null); then
    mkdir "$scratch/last-tree"
    git archive "$last" | tar -x -C "$scratch/last-tree"
    if [[ $(major_version "$scratch/last-tree") != "$(major_version .)" ]]; then
        echo "check-abi: the major version has changed since $last, so the binary interface may have"
    else
        build "$scratch/last-tree" "$scratch/last"
        compare "$scratch/last-tree" "$scratch/last" "$PWD" "$now" ||
            fail "programs linked against $last would break; see docs/abi.md"
        echo "check-abi: compatible with $last"
    fi
else
    echo "check-abi: no release yet to compare with"
fi

mkdir "$scratch/broken-tree"
cp -r CMakeLists.txt cmake include ipc records util platform "$scratch/broken-tree"
interface=include/security_privacy/security_privacy_service_intf.h
sed -i 's/^    virtual int32_t GetPermissionUsageSummary(/    virtual int32_t AddedInTheMiddle() { return 0; }\n&/' \
    "$scratch/broken-tree/$interface"
if cmp -s "$interface" "$scratch/broken-tree/$interface"; then
    fail "the self-test did not find where to add its function"
fi
build "$scratch/broken-tree" "$scratch/broken"
if compare "$PWD" "$now" "$scratch/broken-tree" "$scratch/broken" >"$scratch/report"; then
    fail "a virtual function added in the middle of the interface was not noticed"
fi
grep -q AddedInTheMiddle "$scratch/report" || { cat "$scratch/report" >&2; fail "the comparison failed, but not for the added function"; }
echo "check-abi: a virtual function added in the middle is noticed"
