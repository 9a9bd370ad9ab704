#!/bin/sh
# Builds the Debian package from a build tree and checks it as Debian's tools would: its files,
# the dependencies dpkg-shlibdeps found, the menu entry, and lintian with no errors.
#   check-deb.sh BUILD_DIR WORK_DIR
set -eu
build=$1
work=$2
rm -rf "$work"
mkdir -p "$work"
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work" >"$work/cpack.log" 2>&1 || {
    cat "$work/cpack.log" >&2
    exit 1
}
deb=$(ls "$work"/morvane_*_amd64.deb)
fail() { echo "check-deb: $*" >&2; exit 1; }

dpkg-deb -c "$deb" | awk '{print $6}' | sed 's|^\./|/|' >"$work/files"
for f in /usr/bin/morvane /usr/lib/morvane/morvane-studio.so /usr/lib/vst/Morvane.so \
    /usr/lib/vst/Morvane.panel \
    /usr/share/man/man1/morvane.1.gz \
    /usr/share/bash-completion/completions/morvane /usr/share/applications/morvane.desktop \
    /usr/share/icons/hicolor/scalable/apps/morvane.svg /usr/share/doc/morvane/copyright \
    /usr/share/doc/morvane/changelog.gz /usr/lib/vst/Morvane.fxb; do
    grep -qx "$f" "$work/files" || fail "$f is not in the package"
done
if grep -q '^/usr/include\|/tests\?/\|_tests$\|_bench$' "$work/files"; then
    fail "the package holds build or test files"
fi

# Dependencies come from the binaries: X and cairo for the panel, GLib's GIO for the window's
# file chooser, and the C++ runtime, with the versions the binaries need; libsndfile and
# libmpg123, which the host loads when it first reads or writes audio, are named by hand.
# Playback's libpulse is loaded only when something is played, so it is recommended.
depends=$(dpkg-deb -f "$deb" Depends)
for lib in libc6 libstdc++6 libsndfile1 libmpg123-0 libx11-6 libcairo2 libglib2.0-0; do
    echo "$depends" | tr ',' '\n' | sed 's/^ *//; s/ .*//' | grep -qFx "$lib" ||
        fail "Depends lacks $lib: $depends"
done
[ "$(dpkg-deb -f "$deb" Recommends)" = libpulse0 ] || fail "libpulse0 is not recommended"
[ "$(dpkg-deb -f "$deb" Architecture)" = amd64 ] || fail "not an amd64 package"

dpkg-deb -x "$deb" "$work/root"
desktop-file-validate "$work/root/usr/share/applications/morvane.desktop"
grep -q '^Exec=morvane gui %f$' "$work/root/usr/share/applications/morvane.desktop" ||
    fail "the menu entry does not open a file in morvane gui"
"$work/root/usr/bin/morvane" --version >/dev/null || fail "the packaged morvane does not run"
# Neither the plug-in nor morvane needs a window library or the session bus's: the panel
# (Morvane.panel) and the window of morvane gui (morvane-studio.so) bring those when they are
# opened.
for f in usr/lib/vst/Morvane.so usr/bin/morvane; do
    if ldd "$work/root/$f" | grep -q 'libX11\|libcairo\|libgio'; then
        fail "$f links a window library"
    fi
done
studio=$(DISPLAY= "$work/root/usr/bin/morvane" gui --plugin "$work/root/usr/lib/vst/Morvane.so" 2>&1 || true)
case "$studio" in
*morvane-studio*) fail "the packaged morvane gui does not find its window: $studio" ;;
*display*) ;;
*) fail "the packaged morvane gui says: $studio" ;;
esac

# lintian: errors fail; warnings are reported for a person to read.
lintian --tag-display-limit 0 "$deb" >"$work/lintian.log" 2>&1 || true
if grep -q '^E:' "$work/lintian.log"; then
    cat "$work/lintian.log" >&2
    fail "lintian reports errors"
fi
echo "check-deb: $(basename "$deb") holds $(wc -l <"$work/files") entries; Depends: $depends"
