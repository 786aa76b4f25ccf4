#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Makes the four Debian packages in build/packages and looks at their contents.
#
#   scripts/check-packages.sh --install    as root: also installs them, uses them as a user would, and purges them, after
#                                          which nothing of them may be left
set -euo pipefail
cd "$(dirname "$0")/.."
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

fail()
{
    echo "check-packages: $*" >&2
    exit 1
}
quietly()
{
    "$@" >"$scratch/log" 2>&1 </dev/null || { cat "$scratch/log" >&2; fail "failed: $*"; }
}

quietly cmake --preset release -B build/packages -DCMAKE_INSTALL_PREFIX=/usr -DSECURITY_PRIVACY_BUILD_TESTS=OFF
quietly cmake --build build/packages
rm -rf build/packages/made
quietly cpack --config build/packages/CPackConfig.cmake -B "$PWD/build/packages/made"
mapfile -t packages < <(find build/packages/made -maxdepth 1 -name '*.deb' | sort)
((${#packages[@]} == 4)) || fail "made ${#packages[@]} packages instead of 4: ${packages[*]}"

for page in tools/man/*.[1-8]; do
    warnings=$(LC_ALL=C man --warnings --local-file "$page" 2>&1 >"$scratch/log" </dev/null)
    [[ -z $warnings && -s $scratch/log ]] || fail "$page: $warnings"
done

# What each has to hold and to depend on.
declare -A names depends
for package in "${packages[@]}"; do
    name=$(dpkg-deb --field "$package" Package)
    names[$name]=$(dpkg-deb --contents "$package" | awk '{print $6}' | sed 's|^\.||')
    depends[$name]=$(dpkg-deb --field "$package" Depends)
    [[ ${names[$name]} == *"/usr/share/doc/$name/copyright"* ]] || fail "$name has no licence"
done
holds()
{
    grep -q -- "$2" <<<"${names[$1]:-}" || fail "package $1 does not hold $2"
}
holds libsecurity-privacy0 '/libsecurity_privacy\.so\.0$'
holds libsecurity-privacy0 '/libvarn_platform\.so\.0$'
holds libsecurity-privacy-dev '/security_privacy/security_privacy_client\.h$'
holds libsecurity-privacy-dev '/varn/parcel\.h$'
holds libsecurity-privacy-dev '/libsecurity_privacy\.so$'
holds libsecurity-privacy-dev '/pkgconfig/security_privacy\.pc$'
holds security-privacy-tools '/bin/security-privacy-cli$'
holds security-privacy-tools '/man1/security-privacy-cli\.1'
holds security-privacy-tools '/systemd/system/security-privacy\.socket$'
holds security-privacy-doc '/abi\.md$'
[[ ${depends[libsecurity-privacy0]} == *libc6* ]] || fail "the libraries do not depend on libc6"
for name in libsecurity-privacy-dev security-privacy-tools; do
    [[ ${depends[$name]} == *"libsecurity-privacy0 (= "* ]] || fail "$name does not depend on its own libraries"
done
echo "check-packages: made ${packages[*]##*/}"

if ((EUID != 0)) || [[ ${1:-} != --install ]]; then
    echo "check-packages: not installed: that takes root and --install"
    exit 0
fi
installed=$(dpkg-query -W -f='${Package} ${Status}\n' "${!names[@]}" 2>/dev/null | grep ' installed$' || true)
[[ -z $installed ]] || fail "this machine has them already, and they would be lost: $installed"

purge()
{
    quietly env DEBIAN_FRONTEND=noninteractive apt-get -q purge -y "${!names[@]}"
}
trap 'purge; rm -rf "$scratch"' EXIT
quietly env DEBIAN_FRONTEND=noninteractive apt-get -q install -y --no-install-recommends "${packages[@]/#/./}"
quietly security-privacy-cli --help
quietly security-privacy-service --help
quietly make -C tests/consumers/pkg_config OUT="$scratch"
quietly "$scratch/consumer"
quietly systemd-analyze verify --man=no /lib/systemd/system/security-privacy.socket
trap 'rm -rf "$scratch"' EXIT
purge

left=$(for name in "${!names[@]}"; do grep -v '/$' <<<"${names[$name]}"; done | while read -r file; do
    if [[ -e $file ]]; then echo "$file"; fi
done)
[[ -z $left ]] || fail "left behind after the purge: $left"
echo "check-packages: installed, used and purged; nothing is left"
