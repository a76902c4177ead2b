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
    share/vantrel/vantrel-report.xsl share/man/man1/Vantrel.1.gz \
    share/man/man1/vantrel-doc.1.gz share/doc/vantrel/copyright \
    share/doc/vantrel-dev/changelog.gz share/vantrel/vantrel-doc.schema.json share/vantrel/vantrel-plan.schema.json \
    share/vantrel/vantrel-log.schema.json share/doc/vantrel/history.md \
    share/bash-completion/completions/vantrel-doc; do
  [ -f "$work/prefix/$file" ] || { echo "not installed: $file"; exit 1; }
done

for page in Vantrel vantrel-doc; do
  warnings=$(MANWIDTH=80 man --warnings -l "$work/prefix/share/man/man1/$page.1.gz" 2>&1 >/dev/null)
  [ -z "$warnings" ] || { echo "the manual page $page warns: $warnings"; exit 1; }
done

cmake -S "$source/tests/consumer" -B "$work/consumer" \
  -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
projects=$(env -u KIV_ADMIN_STORE "$work/consumer/consumer" 2>/dev/null)
[ "$projects" = $'ENGINE\nSANDBOX' ] || { echo "consumer read: $projects"; exit 1; }

(cd "$build" && cpack -G DEB -B "$work/deb" >/dev/null)
tools="$work/deb/vantrel_1.0.0_amd64.deb" dev="$work/deb/vantrel-dev_1.0.0_amd64.deb"
contents=$(dpkg-deb -c "$tools")
grep -q ' ./usr/bin/Vantrel$' <<<"$contents" || { echo "no usr/bin/Vantrel in $tools"; exit 1; }
! grep -q '/include/' <<<"$contents" || { echo "headers in $tools"; exit 1; }
grep -q ' ./usr/include/vantrel/KivAdmin.h$' <<<"$(dpkg-deb -c "$dev")" ||
  { echo "no headers in $dev"; exit 1; }
grep -q libsqlite3 <<<"$(dpkg-deb -f "$tools" Depends)" || { echo "no dependencies in $tools"; exit 1; }
# Debian's own judgement of the packages: no error.
if command -v lintian >/dev/null; then
  errors=$(lintian --no-tag-display-limit "$tools" "$dev" 2>&1 | grep '^E:' || true)
  [ -z "$errors" ] || { echo "lintian: $errors"; exit 1; }
fi
echo "installed, built against and packaged: $(basename "$tools") $(basename "$dev")"
