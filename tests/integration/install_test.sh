#!/usr/bin/env bash
# ZEVALib as a host developer gets it: installed into a fresh prefix and
# packaged as a .deb, then the programs under examples/ built against each,
# with find_package(ZEVA) and with pkg-config alone. The record example's
# movie is probed, cut where its moov box begins (a recording killed before
# its trailer) and rebuilt by the repair example. Nothing but the public
# headers, the library, the program and the package files may be installed.
# Usage: install_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$(realpath "$1") build=$(realpath "$2")
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "FAIL: $*"; exit 1; }
ma=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
version=$(sed -n 's/^#define ZEVA_VERSION_STRING "\(.*\)"/\1/p' "$build/include/zeva/version.h")
quiet() { "$@" > "$tmp/cmd.log" 2>&1 || { cat "$tmp/cmd.log"; fail "$*"; }; }

# --- the installed tree: exactly the public files, with the multiarch libdir
prefix=$tmp/prefix
quiet cmake --install "$build" --prefix "$prefix"
expected=$( {
  echo bin/zeva
  for h in "$src"/include/zeva/*.h version.h; do echo "include/zeva/$(basename "$h")"; done
  for f in libzeva.so libzeva.so.0 "libzeva.so.$version" pkgconfig/zeva.pc \
           cmake/ZEVA/ZEVAConfig.cmake cmake/ZEVA/ZEVAConfigVersion.cmake cmake/ZEVA/ZEVATargets.cmake; do
    echo "lib/$ma/$f"
  done
} | sort)
actual=$(cd "$prefix" && find . \( -type f -o -type l \) ! -name 'ZEVATargets-*.cmake' | sed 's|^\./||' | sort)
[ "$actual" = "$expected" ] || fail "installed files differ from the public set:
$(diff <(echo "$expected") <(echo "$actual"))"
quiet bash "$src/tests/integration/check_exports.sh" "$prefix/lib/$ma/libzeva.so"
[ "$(LD_LIBRARY_PATH=$prefix/lib/$ma "$prefix/bin/zeva" --version)" = "zeva $version" ] \
  || fail "installed zeva --version"

# --- the examples against the prefix: CMake package, then pkg-config only
for ex in record repair; do
  quiet cmake -S "$src/examples/$ex" -B "$tmp/cmake-$ex" -DCMAKE_PREFIX_PATH="$prefix"
  quiet cmake --build "$tmp/cmake-$ex"
  mkdir -p "$tmp/pc-$ex"
  # shellcheck disable=SC2046  # pkg-config's flags are meant to split
  quiet g++ -std=c++17 -o "$tmp/pc-$ex/$ex" "$src/examples/$ex/$ex.cc" \
    $(PKG_CONFIG_PATH=$prefix/lib/$ma/pkgconfig pkg-config --cflags --libs zeva)
done

export LD_LIBRARY_PATH=$prefix/lib/$ma  # pkg-config builds carry no run path
for kind in cmake pc; do
  dir=$tmp/$kind && mkdir -p "$dir"
  quiet "$tmp/$kind-record/record" "$dir/rec.mp4" "$dir/rec.moov"
  streams=$(ffprobe -v error -show_entries stream=codec_name,width,height,duration -of csv=p=0 "$dir/rec.mp4")
  [[ "$streams" =~ ^h264,640,360,5\.0[0-9]*$'\n'aac,(4\.9|5\.0) ]] || fail "$kind record: $streams"
  python3 "$src/tests/integration/mp4_cut_at_moov.py" "$dir/rec.mp4" "$dir/cut.mp4"
  ! ffprobe -v error "$dir/cut.mp4" > /dev/null 2>&1 || fail "$kind: the cut movie still opens"
  quiet "$tmp/$kind-repair/repair" "$dir/cut.mp4" "$dir/rec.moov" "$dir/fixed.mp4"
  errors=$(ffmpeg -nostdin -v error -i "$dir/fixed.mp4" -f null - 2>&1)
  [ -z "$errors" ] || fail "$kind: the repaired movie does not decode cleanly: $errors"
  [[ "$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$dir/fixed.mp4")" =~ ^(4\.9|5\.0) ]] \
    || fail "$kind: the repaired movie is short"
done
unset LD_LIBRARY_PATH

# --- the Debian package: its files where Debian keeps them, its
# dependencies, and an example built against its unpacked tree
quiet cpack -G DEB --config "$build/CPackConfig.cmake" -B "$tmp/deb"
deb=$(ls "$tmp"/deb/libzeva*.deb)
files=$(dpkg-deb -c "$deb" | awk '{print $6}' | grep -v '/$')
packaged=$(sed 's|^\./usr/||' <<<"$files" | grep -v '/ZEVATargets-' | sort)
[ "$packaged" = "$expected" ] || fail "the package's files under /usr differ from the public set:
$(diff <(echo "$expected") <(echo "$packaged"))"
depends=$(dpkg-deb -f "$deb" Depends)
for lib in libavcodec59 libavformat59 libavutil57 libswscale6 libswresample4 libyuv0 libstdc\\+\\+6; do
  grep -qE "(^|, )$lib( |,|$)" <<<"$depends" || fail "Depends lacks $lib: $depends"
done
dpkg-deb -I "$deb" shlibs | grep -q "^libzeva 0 libzeva" || fail "no shlibs entry"
dpkg-deb -x "$deb" "$tmp/root"
quiet cmake -S "$src/examples/record" -B "$tmp/deb-record" -DCMAKE_PREFIX_PATH="$tmp/root/usr"
quiet cmake --build "$tmp/deb-record"
quiet "$tmp/deb-record/record" "$tmp/deb.mp4" "$tmp/deb.moov"
echo "install ok: $(wc -l <<<"$actual") files installed; $(basename "$deb"): $depends"
