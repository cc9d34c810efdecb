#!/usr/bin/env bash
# Builds the Debian package from a build folder and checks what it installs.
#   check_deb.sh <build folder> <source folder> <work folder>
set -euo pipefail
build=$1 source=$2 work=$3

rm -rf "$work"
mkdir -p "$work"
if ! (cd "$build" && cpack -G DEB -B "$work" >"$work/cpack.log" 2>&1); then
    cat "$work/cpack.log"
    exit 1
fi
debs=("$work"/tilthwatch_*.deb)
deb=${debs[0]}
[ -f "$deb" ] || { echo "no package in $work"; exit 1; }

failed=0
fail() { echo "FAIL: $*"; failed=1; }

listing=$(dpkg -c "$deb")
echo "$listing"
# Path, mode as dpkg -c shows it, and the source it must equal ("" for the built binary).
while read -r path mode from; do
    line=$(grep -E " \\.${path}\$" <<<"$listing" || true)
    [ -n "$line" ] || { fail "$path is not in the package"; continue; }
    [ "${line%% *}" = "$mode" ] || fail "$path has mode ${line%% *}, not $mode"
    if [ "$from" != "-" ]; then
        dpkg-deb --fsys-tarfile "$deb" | tar -xOf - ".$path" | cmp -s - "$source/$from" ||
            fail "$path differs from $from"
    fi
done <<'TABLE'
/usr/bin/tilthwatch -rwxr-xr-x -
/usr/lib/systemd/system/tilthwatch.service -rw-r--r-- packaging/tilthwatch.service
/usr/lib/sysusers.d/tilthwatch.conf -rw-r--r-- packaging/tilthwatch.sysusers
/usr/lib/tmpfiles.d/tilthwatch.conf -rw-r--r-- packaging/tilthwatch.tmpfiles
/etc/norvane/tilthwatch/log4cplus.default.ini -rw-r--r-- packaging/log4cplus.default.ini
TABLE

control=$work/control
dpkg-deb -e "$deb" "$control"
grep -qx "/etc/norvane/tilthwatch/log4cplus.default.ini" "$control/conffiles" ||
    fail "the configuration is not a conffile"
grep -q "^Depends:.*libboost-program-options" "$control/control" ||
    fail "the library dependencies are missing: $(grep ^Depends "$control/control")"
for script in postinst prerm postrm; do
    [ -x "$control/$script" ] || fail "$script is not executable"
    sh -n "$control/$script" || fail "$script is not valid shell"
done

[ "$failed" -eq 0 ] && echo "package ok: $deb"
exit "$failed"
