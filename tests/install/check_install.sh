#!/usr/bin/env bash
# check_install.sh (ctest InstallLayout): what `cmake --install` and `cpack -G DEB` make of a
# build: the installed layout, the systemd unit (paths, start check, systemd-analyze verify),
# the manual page (.TH and groff warnings), the package's contents and control data, and its postinst
# run against a private root.
# Usage: check_install.sh [BUILD_DIR [SOURCE_DIR [SANITIZER]]]
#   no BUILD_DIR: configures and builds the daemon in a fresh temporary build directory.
#   SANITIZER non-empty: the build is instrumented; nothing worth installing, skipped.
set -euo pipefail

build=${1:-}
src=${2:-$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)}
sanitize=${3:-}
if [ -n "$sanitize" ]; then
    echo "skipped: sanitizer build ($sanitize), its binaries are not for installing"
    exit 0
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/check_install.XXXXXX")
trap 'rm -rf "$work"' EXIT
failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}
# check DESCRIPTION COMMAND...: runs the command, reports ok or counts a failure.
check() {
    local what=$1
    shift
    if "$@"; then echo "ok: $what"; else fail "$what"; fi
}
have() { command -v "$1" >/dev/null 2>&1; }
line_in() { grep -qxF -- "$2" "$1"; }
mode_of() { stat -c %a "$1" 2>/dev/null || echo missing; }

if [ -z "$build" ]; then
    build=$work/build
    generator=()
    if have ninja; then generator=(-G Ninja); fi
    cmake -S "$src" -B "$build" "${generator[@]}" -DQUIL_TESTS=OFF -DQUIL_TOOLS=OFF -DQUIL_BENCH=OFF >/dev/null
    cmake --build "$build" --target quil-manager-agent --parallel 2 >/dev/null
fi
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")

# ---- plain install --------------------------------------------------------------------
stage=$work/stage
if ! cmake --install "$build" --prefix "$stage" >"$work/install.log" 2>&1; then
    cat "$work/install.log" >&2
    echo "FAIL: cmake --install (build the daemon and the simulator first)" >&2
    exit 1
fi
escaped=$(grep -v "^$stage/" "$build/install_manifest.txt" || true)
check "every installed file is under the prefix" test -z "$escaped"

unit=$stage/lib/systemd/system/quil-manager-agent.service
defaults=$stage/etc/default/quil-manager-agent
man8=$stage/share/man/man8/quil-manager-agent.8
installed=("$stage/sbin/quil-manager-agent" "$unit" "$defaults" "$man8")
[ -x "$build/tools/quil-dg-sim" ] && installed+=("$stage/bin/quil-dg-sim" "$stage/share/man/man1/quil-dg-sim.1")
for path in "${installed[@]}"; do
    check "installed: ${path#"$stage"/}" test -f "$path"
done
check "daemon is executable" test -x "$stage/sbin/quil-manager-agent"
banner=$("$stage/sbin/quil-manager-agent" -v 2>&1 || true)
check "installed daemon runs and reports version $version" grep -qF "quil-manager-agent $version " <<<"$banner"

check "unit: EnvironmentFile names the installed file" \
    grep -qE '^EnvironmentFile=/.*/default/quil-manager-agent$' "$unit"
check "unit: foreground ExecStart on the sbin daemon" grep -qE '^ExecStart=/\S*/sbin/quil-manager-agent$' "$unit"
for var in MGR_QUIL_HOME MGR_QUIL_MANAGER_HOME MGR_RECEIVER_ADDR; do
    check "environment file sets $var" grep -qE "^$var=\S+" "$defaults"
done

# The unit's start check, run as systemd would ($$ is systemd's escape for $): it refuses
# a missing address and creates the missing data and tmp directories, private.
# The daemon's path in it is the prefix's; here it runs from the staging directory. systemd
# stops at the first ExecStartPre that fails.
daemon_path=$(sed -n 's/^ExecStart=//p' "$unit")
pre=$(sed -n 's/^ExecStartPre=//p' "$unit" | sed 's/\$\$/$/g' | sed "s#$daemon_path#$stage/sbin/quil-manager-agent#g" |
    awk 'NR > 1 { printf " && " } { printf "%s", $0 }')
check "unit: ExecStartPre present" test -n "$pre"
if (env -i PATH="$PATH" MGR_QUIL_HOME="$work/home" MGR_RECEIVER_ADDR= bash -c "$pre") 2>/dev/null; then
    fail "unit start check accepts an empty MGR_RECEIVER_ADDR"
else
    echo "ok: unit start check refuses an empty MGR_RECEIVER_ADDR"
fi
check "unit start check passes with both settings" \
    env -i PATH="$PATH" MGR_QUIL_HOME="$work/home" MGR_RECEIVER_ADDR=127.0.0.1:7000 bash -c "$pre"
if (env -i PATH="$PATH" MGR_QUIL_HOME="$work/home" MGR_RECEIVER_ADDR=127.0.0.1:7000 MGR_TLS_CONNECT=bogus \
    bash -c "$pre") 2>/dev/null; then
    fail "unit start check accepts MGR_TLS_CONNECT=bogus"
else
    echo "ok: unit start check refuses a bad TLS setting"
fi
check "unit start check made data and tmp 0700" \
    test "$(mode_of "$work/home/manager/data") $(mode_of "$work/home/manager/tmp")" = "700 700"

# ---- manual page ------------------------------------------------------------------------
check "manual page: .TH line" grep -qE "^\.TH QUIL-MANAGER-AGENT 8 .*$version" "$man8"
if have groff; then
    check "manual page: no groff warnings" test -z "$(groff -man -ww -z "$man8" 2>&1)"
fi

# verify_unit UNIT BINARY MANROOT: systemd-analyze verify on a copy whose ExecStart names
# BINARY (the unit's own path does not exist here) and whose man page is looked up under
# MANROOT. Any output is a warning and counts as a failure.
verify_unit() {
    local dir=$work/verify.$RANDOM
    mkdir -p "$dir"
    sed "s#^ExecStart=.*#ExecStart=$2#" "$1" >"$dir/quil-manager-agent.service"
    local out
    if ! out=$(MANPATH="$3" systemd-analyze verify "$dir/quil-manager-agent.service" 2>&1) || [ -n "$out" ]; then
        echo "$out" >&2
        return 1
    fi
}
if have systemd-analyze; then
    check "systemd-analyze verify (installed unit)" verify_unit "$unit" "$stage/sbin/quil-manager-agent" "$stage/share/man"
else
    echo "note: systemd-analyze not available, unit not verified"
fi

# ---- Debian package ---------------------------------------------------------------------
if ! have cpack || ! have dpkg-deb; then
    echo "note: cpack or dpkg-deb not available, package not checked"
else
    cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/deb" >"$work/cpack.log" 2>&1 ||
        {
            cat "$work/cpack.log" >&2
            fail "cpack -G DEB"
        }
    deb=$(find "$work/deb" -maxdepth 1 -name 'quil-manager-agent_*.deb' | head -n 1)
    check "package built" test -f "$deb"
fi
if [ -n "${deb:-}" ] && [ -f "$deb" ]; then
    contents=$(dpkg-deb -c "$deb" | awk '{print $NF}')
    for path in ./usr/sbin/quil-manager-agent ./usr/lib/systemd/system/quil-manager-agent.service \
        ./etc/default/quil-manager-agent ./usr/share/man/man8/quil-manager-agent.8.gz; do
        check "package contains $path" grep -qxF "$path" <<<"$contents"
    done
    check "package leaves the simulator out" test -z "$(grep -F quil-dg-sim <<<"$contents" || true)"
    check "package name and version $version" grep -qE "^quil-manager-agent $version(-|$)" \
        <<<"$(dpkg-deb -f "$deb" Package Version | sed 's/^[A-Za-z]*: //' | paste -sd ' ')"
    check "package depends on libcjson1" grep -qE '(^|, )libcjson1( |,|$)' <<<"$(dpkg-deb -f "$deb" Depends)"

    control=$work/control
    dpkg-deb -e "$deb" "$control"
    check "environment file is a conffile" line_in "$control/conffiles" /etc/default/quil-manager-agent
    for script in postinst prerm postrm; do
        check "$script is executable POSIX sh" bash -c "test -x '$control/$script' && sh -n '$control/$script'"
    done

    root=$work/root
    dpkg-deb -x "$deb" "$root"
    pkg_unit=$root/usr/lib/systemd/system/quil-manager-agent.service
    check "packaged unit starts /usr/sbin/quil-manager-agent" line_in "$pkg_unit" ExecStart=/usr/sbin/quil-manager-agent
    check "packaged unit reads /etc/default/quil-manager-agent" \
        line_in "$pkg_unit" EnvironmentFile=/etc/default/quil-manager-agent
    if have systemd-analyze; then
        check "systemd-analyze verify (packaged unit)" \
            verify_unit "$pkg_unit" "$root/usr/sbin/quil-manager-agent" "$root/usr/share/man"
    fi

    # postinst against the private root: the shipped file's home (/opt/quil), then a home
    # changed by the operator (quoted), run twice; a linked manager directory is refused.
    check "postinst configure" env DPKG_ROOT="$root" sh "$control/postinst" configure
    m=$root/opt/quil/manager
    check "postinst: manager 755, data 700, tmp 700, log 750" \
        test "$(mode_of "$m") $(mode_of "$m/data") $(mode_of "$m/tmp") $(mode_of "$m/log")" = "755 700 700 750"
    if [ "$(id -u)" = 0 ]; then
        check "postinst: data and tmp owned by root" test "$(stat -c %u "$m/data") $(stat -c %u "$m/tmp")" = "0 0"
    fi
    sed -i 's#^MGR_QUIL_HOME=.*#MGR_QUIL_HOME="/srv/quil"#' "$root/etc/default/quil-manager-agent"
    check "postinst configure (changed home)" env DPKG_ROOT="$root" sh "$control/postinst" configure
    check "postinst: home read from the environment file" test "$(mode_of "$root/srv/quil/manager/data")" = 700
    chmod 0750 "$root/srv/quil/manager/data"
    check "postinst configure again" env DPKG_ROOT="$root" sh "$control/postinst" configure
    check "postinst: an existing directory keeps its mode" test "$(mode_of "$root/srv/quil/manager/data")" = 750
    mkdir -p "$root/srv/elsewhere" "$root/srv/linked"
    ln -s ../elsewhere "$root/srv/linked/manager"
    sed -i 's#^MGR_QUIL_HOME=.*#MGR_QUIL_HOME=/srv/linked#' "$root/etc/default/quil-manager-agent"
    env DPKG_ROOT="$root" sh "$control/postinst" configure 2>/dev/null || true
    check "postinst: a linked manager directory is left alone" test ! -e "$root/srv/elsewhere/data"

    check "unit is Type=notify with WatchdogSec=30" \
        bash -c "grep -qx 'Type=notify' '$pkg_unit' && grep -qx 'WatchdogSec=30' '$pkg_unit'"
    if have lintian; then
        lintian_out=$(lintian "$deb" 2>&1 | grep -v 'running with root privileges' || true)
        echo "$lintian_out" | sed 's/^/lintian: /'
        check "lintian reports no error" test -z "$(grep '^E:' <<<"$lintian_out" || true)"
    else
        echo "note: lintian not available, package not linted"
    fi

    # The package on this machine: installed, its unit verified where it landed, purged
    # without a file left behind. Only as root, and never over an installed copy.
    if [ "$(id -u)" = 0 ] && have dpkg && ! dpkg -s quil-manager-agent >/dev/null 2>&1; then
        check "dpkg -i" dpkg -i "$deb" >/dev/null
        files=$(dpkg -L quil-manager-agent | while read -r f; do if [ -f "$f" ]; then echo "$f"; fi; done)
        if have systemd-analyze; then
            check "systemd-analyze verify (unit installed by dpkg)" \
                verify_unit /usr/lib/systemd/system/quil-manager-agent.service /usr/sbin/quil-manager-agent /usr/share/man
        fi
        check "dpkg --purge" dpkg --purge quil-manager-agent >/dev/null
        left=$(for f in $files; do if [ -e "$f" ]; then echo "$f"; fi; done)
        check "purge leaves none of the package's files (${left:-none})" test -z "$left"
    else
        echo "note: not root, no dpkg, or the package is installed here: install test skipped"
    fi
fi

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed" >&2
    exit 1
fi
echo "all install checks passed"
