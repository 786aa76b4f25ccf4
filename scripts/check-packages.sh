#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Makes the four Debian packages in build/packages, with Debian's hardening flags, and looks at their contents and what
# lintian says of them.
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

# The packages hold no debug information.
export DEB_BUILD_MAINT_OPTIONS=hardening=+all DEB_CXXFLAGS_MAINT_STRIP=-g
quietly cmake --preset release -B build/packages -DCMAKE_INSTALL_PREFIX=/usr -DSECURITY_PRIVACY_BUILD_TESTS=OFF \
    -DCMAKE_CXX_FLAGS="$(dpkg-buildflags --get CPPFLAGS) $(dpkg-buildflags --get CXXFLAGS)" \
    -DCMAKE_SHARED_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS)" \
    -DCMAKE_EXE_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS)"
quietly cmake --build build/packages
rm -rf build/packages/made
quietly cpack --config build/packages/CPackConfig.cmake -B "$PWD/build/packages/made"
mapfile -t packages < <(find build/packages/made -maxdepth 1 -name '*.deb' | sort)
((${#packages[@]} == 4)) || fail "made ${#packages[@]} packages instead of 4: ${packages[*]}"

for page in build/packages/tools/man/*.[1-8]; do
    warnings=$(LC_ALL=C man --warnings --local-file "$page" 2>&1 >"$scratch/log" </dev/null)
    [[ -z $warnings && -s $scratch/log ]] || fail "$page: $warnings"
done

found=$(lintian --fail-on none --pedantic "${packages[@]}" 2>&1 | grep -E '^[EW]:' || true)
[[ -z $found ]] || fail "lintian finds:
$found"
echo "check-packages: lintian finds no error and no warning"

# What each has to hold and to depend on.
declare -A names depends
for package in "${packages[@]}"; do
    dpkg-deb --extract "$package" "$scratch/image"
    name=$(dpkg-deb --field "$package" Package)
    names[$name]=$(dpkg-deb --contents "$package" | awk '{print $6}' | sed 's|^\.||')
    depends[$name]=$(dpkg-deb --field "$package" Depends)
    [[ ${names[$name]} == *"/usr/share/doc/$name/copyright"* ]] || fail "$name has no licence"
done
holds()
{
    grep -q -- "$2" <<<"${names[$1]:-}" || fail "package $1 does not hold $2"
}
runtime=$(printf '%s\n' "${!names[@]}" | grep -E '^libsecurity-privacy[0-9.]+$')
holds "$runtime" "/libsecurity_privacy\.so\.${runtime#libsecurity-privacy}$"
holds "$runtime" "/libvarn_platform\.so\.${runtime#libsecurity-privacy}$"
holds libsecurity-privacy-dev '/security_privacy/security_privacy_client\.h$'
holds libsecurity-privacy-dev '/varn/parcel\.h$'
holds libsecurity-privacy-dev '/libsecurity_privacy\.so$'
holds libsecurity-privacy-dev '/pkgconfig/security_privacy\.pc$'
holds security-privacy-tools '/bin/security-privacy-cli$'
holds security-privacy-tools '/man1/security-privacy-cli\.1\.gz$'
holds security-privacy-tools '/systemd/system/security-privacy\.socket$'
holds security-privacy-tools '/bash-completion/completions/security-privacy-cli$'
holds security-privacy-doc '/abi\.md$'
[[ ${depends[$runtime]} == *libc6* ]] || fail "the libraries do not depend on libc6"
[[ ${depends[libsecurity-privacy-dev]} == *"$runtime (= "* ]] || fail "the headers may stand beside other libraries"
for library in "$runtime (>= " libsqlite3-0 libsystemd0; do
    [[ ${depends[security-privacy-tools]} == *"$library"* ]] || fail "the tools do not depend on $library"
done

# Position independent, all symbols bound at start and then read-only, stacks guarded; and at least one of them calls the
# checked functions of the C library.
fortified=0
for file in "$scratch"/image/usr/{bin,sbin,lib/*}/{security-privacy-cli,security-privacy-service,lib*.so.*.*.*}; do
    [[ -f $file ]] || continue
    readelf --file-header "$file" | grep -q 'Type: *DYN' || fail "$file has a fixed address"
    readelf --dynamic "$file" | grep -q 'BIND_NOW\|FLAGS_1.*NOW' || fail "$file binds its symbols late"
    readelf --program-headers "$file" | grep -q GNU_RELRO || fail "$file stays writable"
    symbols=$(readelf --dyn-syms --wide "$file")
    grep -q __stack_chk_fail <<<"$symbols" || fail "$file does not guard its stacks"
    if grep -q '__[a-z]*_chk@' <<<"$symbols"; then ((++fortified)); fi
done
((fortified >= 2)) || fail "only $fortified files call the checked functions of the C library"
echo "check-packages: programs and libraries are hardened"

# Every link between the documents has to lead somewhere; the headers are in the development package.
python3 scripts/check_docs.py links "$scratch/image/usr/share/doc/security_privacy" || fail "links that lead nowhere"
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
quietly man --where security-privacy-cli
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
