#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Compares the binary interface of both libraries with the last description in docs/abi/ and fails when programs that
# were linked against that version would break, unless the shared objects have another version now. Then it proves on
# a copy that the comparison notices a virtual function added in the middle of the interface.
#
#   scripts/check-abi.sh           compares
#   scripts/check-abi.sh --keep    writes the description of this version, which a release leaves for the next one
set -euo pipefail
cd "$(dirname "$0")/.."
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
libraries=(libsecurity_privacy.so platform/libvarn_platform.so)

fail()
{
    echo "check-abi: $*" >&2
    exit 1
}
quietly()
{
    "$@" >"$scratch/log" 2>&1 || { cat "$scratch/log" >&2; fail "failed: $*"; }
}

# build SOURCE FOLDER: with the debug information that describes types.
build()
{
    quietly cmake -S "$1" -B "$2" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_UNITY_BUILD=ON \
        -DSECURITY_PRIVACY_BUILD_TESTS=OFF -DSECURITY_PRIVACY_BUILD_TOOLS=OFF -DSECURITY_PRIVACY_INSTALL=OFF
    quietly cmake --build "$2"
}

# The version that the shared objects of a release carry, see docs/abi.md.
soversion()
{
    if [[ $1 == 0.* ]]; then cut -d. -f1,2 <<<"$1"; else cut -d. -f1 <<<"$1"; fi
}

# compare OLD NEW OPTION...: 0 when nothing that was there has changed. Additions are no change.
compare()
{
    abidiff --no-added-syms --drop-private-types "${@:3}" "$1" "$2"
}

version=$(sed -n 's/^project(.* VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
now=build/abi
headers=(--headers-dir2 include --headers-dir2 platform/include --headers-dir2 "$now/generated")
build . "$now"

if [[ ${1:-} == --keep ]]; then
    mkdir -p "docs/abi/$version"
    for library in "${libraries[@]}"; do
        kept=docs/abi/$version/$(basename "$library" .so).abi.xz
        abidw --drop-private-types --no-corpus-path --no-comp-dir-path --no-show-locs --headers-dir include \
            --headers-dir platform/include --headers-dir "$now/generated" "$now/$library" | xz -9e >"$kept"
        echo "check-abi: wrote $kept"
    done
    exit
fi

last=$(find docs/abi -mindepth 1 -type d -printf '%f\n' | sort -V | tail -n 1)
[[ -n $last ]] || fail "docs/abi holds no description to compare with"
for library in "${libraries[@]}"; do
    name=$(basename "$library" .so)
    xz -dc "docs/abi/$last/$name.abi.xz" >"$scratch/$name.abi"
    if compare "$scratch/$name.abi" "$now/$library" "${headers[@]}" >"$scratch/report"; then
        echo "check-abi: $name is compatible with $last"
    elif [[ $(soversion "$last") != "$(soversion "$version")" ]]; then
        echo "check-abi: $name differs from $last, as it may: the shared object is $(soversion "$version") now"
        sed -n 's/^\(Functions\|Variables\) changes summary/    &/p' "$scratch/report"
    else
        cat "$scratch/report" >&2
        fail "programs linked against $name $last would break; see docs/abi.md"
    fi
done

mkdir "$scratch/broken"
cp -r CMakeLists.txt cmake include ipc records util platform "$scratch/broken"
interface=include/security_privacy/security_privacy_service_intf.h
sed -i 's/^    virtual int32_t GetPermissionUsageSummary(/    virtual int32_t AddedInTheMiddle() { return 0; }\n&/' \
    "$scratch/broken/$interface"
! cmp -s "$interface" "$scratch/broken/$interface" || fail "the self-test did not find where to add its function"
build "$scratch/broken" "$scratch/build"
if compare "$now/libsecurity_privacy.so" "$scratch/build/libsecurity_privacy.so" >"$scratch/report"; then
    fail "a virtual function added in the middle of the interface was not noticed"
fi
grep -q AddedInTheMiddle "$scratch/report" || { cat "$scratch/report" >&2; fail "the comparison failed, but not for the added function"; }
echo "check-abi: a virtual function added in the middle is noticed"
