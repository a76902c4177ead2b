#!/usr/bin/env bash
# Installs the build tree into a temporary prefix and checks its layout, the
# manual page, a program built against the package with find_package, and
# the Debian package made by cpack. Usage: install_test.sh BUILD SOURCE
set -euo pipefail
build="$1" source="$2"
work="$build/tests/output/install"
rm -rf "$work" && mkdir -p "$work"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
for file in bin/Vantrel bin/vantrel-doc include/vantrel/KivAdmin.h \
    lib/libvantrel_objectmodel.a lib/cmake/Vantrel/VantrelConfig.cmake \
    lib/cmake/Vantrel/VantrelConfigVersion.cmake share/vantrel/schema.sql \
    share/vantrel/demo.sql share/vantrel/KivAdmin.dtd \
    share/vantrel/vantrel-report.xsl share/man/man1/Vantrel.1; do
  [ -f "$work/prefix/$file" ] || { echo "not installed: $file"; exit 1; }
done

warnings=$(MANWIDTH=80 man --warnings -l "$work/prefix/share/man/man1/Vantrel.1" 2>&1 >/dev/null)
[ -z "$warnings" ] || { echo "the manual page warns: $warnings"; exit 1; }

cmake -S "$source/tests/consumer" -B "$work/consumer" \
  -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
projects=$(env -u KIV_ADMIN_STORE "$work/consumer/consumer" 2>/dev/null)
[ "$projects" = $'ENGINE\nSANDBOX' ] || { echo "consumer read: $projects"; exit 1; }

(cd "$build" && cpack -G DEB -B "$work/deb" >/dev/null)
deb=$(ls "$work"/deb/*.deb)
contents=$(dpkg-deb -c "$deb")
grep -q ' ./usr/bin/Vantrel$' <<<"$contents" || { echo "no usr/bin/Vantrel in $deb"; exit 1; }
grep -q libsqlite3 <<<"$(dpkg-deb -f "$deb" Depends)" || { echo "no dependencies in $deb"; exit 1; }
echo "installed, built against and packaged: $(basename "$deb")"
