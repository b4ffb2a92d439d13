#!/usr/bin/env bash
# Installs the build into a temporary prefix and checks that every file is where
# the README and the man page say; the man page must render without warnings.
#   install_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
source_dir=$1
build_dir=$2
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build_dir" --prefix "$prefix" >/dev/null
status=0
for file in bin/kestrelQT_u bin/kestrel_sim bin/kestrel_mkimage bin/kestrel_gang share/man/man1/kestrelQT_u.1.gz \
    share/doc/kestrelqt-u/settings_mac.ini share/doc/kestrelqt-u/copyright share/doc/kestrelqt-u/changelog.gz \
    share/doc/kestrelqt-u/sim/README.md share/doc/kestrelqt-u/tools/README.md \
    share/bash-completion/completions/kestrelQT_u; do
    if [ ! -e "$prefix/$file" ]; then
        echo "missing after install: $file"
        status=1
    fi
done
"$prefix/bin/kestrelQT_u" --version | grep -q '^kestrelQT_u [0-9]' || { echo "installed tool does not run"; status=1; }
if command -v groff >/dev/null 2>&1; then
    warnings=$(for page in "$source_dir"/doc/*.1; do groff -man -ww -z "$page"; done 2>&1)
    [ -z "$warnings" ] || { echo "man page warnings: $warnings"; status=1; }
fi
bash -n "$source_dir/doc/kestrelQT_u.bash-completion" || status=1
for program in kestrelQT_u kestrel_sim kestrel_mkimage kestrel_gang; do
    "$prefix/bin/$program" --version | grep -q "^$program [0-9]" || { echo "$program --version fails"; status=1; }
done
[ $status -eq 0 ] && echo "install: all files in place"
exit $status
