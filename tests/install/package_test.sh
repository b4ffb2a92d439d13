#!/usr/bin/env bash
# Builds the Debian package in a fresh build folder and checks what it holds: the
# four programs stripped, the man page compressed, the copyright file and the
# companion READMEs; that no test program was built for it; and, where lintian
# is installed, that lintian finds no error.
#   package_test.sh SOURCE_DIR
set -euo pipefail
source_dir=$1
build=$(mktemp -d)
trap 'rm -rf "$build"' EXIT
cmake -S "$source_dir" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
(cd "$build" && cpack -G DEB >/dev/null)
deb=$(ls "$build"/kestrelqt-u_*.deb)
status=0
contents=$(dpkg-deb -c "$deb")
for file in ./usr/bin/kestrelQT_u ./usr/bin/kestrel_sim ./usr/bin/kestrel_mkimage ./usr/bin/kestrel_gang \
    ./usr/share/man/man1/kestrelQT_u.1.gz ./usr/share/man/man1/kestrel_sim.1.gz \
    ./usr/share/man/man1/kestrel_mkimage.1.gz ./usr/share/man/man1/kestrel_gang.1.gz ./usr/share/doc/kestrelqt-u/copyright \
    ./usr/share/doc/kestrelqt-u/changelog.gz ./usr/share/doc/kestrelqt-u/sim/README.md \
    ./usr/share/doc/kestrelqt-u/tools/README.md ./usr/share/bash-completion/completions/kestrelQT_u; do
    grep -q " $file\$" <<<"$contents" || { echo "missing in the package: $file"; status=1; }
done
if grep -q '\.1$' <<<"$contents"; then echo "uncompressed man page in the package"; status=1; fi
unpacked=$build/unpacked
dpkg-deb -x "$deb" "$unpacked"
for program in "$unpacked"/usr/bin/*; do
    if file "$program" | grep -q 'not stripped'; then echo "not stripped: $program"; status=1; fi
done
if ls "$build"/tests/*/*_test >/dev/null 2>&1; then echo "the package build built test programs"; status=1; fi
maintainer=$(dpkg-deb -f "$deb" Maintainer)
[ "$maintainer" != "" ] && ! grep -q localhost <<<"$maintainer" || { echo "maintainer: $maintainer"; status=1; }
if command -v lintian >/dev/null 2>&1; then
    errors=$(lintian --no-tag-display-limit "$deb" 2>&1 | grep '^E:' || true)
    [ -z "$errors" ] || { echo "lintian: $errors"; status=1; }
fi
[ $status -eq 0 ] && echo "package: contents, stripping and man pages as they should be"
exit $status
