#!/usr/bin/env bash
# Installs the build into a scratch prefix and moves it, then uses it as an outside project would:
# the installed minimal-host example is built with find_package(orvandeldsp) and with pkg-config and
# runs a chain, every installed header compiles, the library exports no internals, the man page knows
# every command and option and the completion completes them, systemd-analyze accepts the service unit, and the moved tool still finds
# its sounds. A /usr prefix must give the library /usr/share/orvandel-1.0, and /usr and /usr/local
# installs put the service, its bus policies and its configs where systemd and the system bus look.
# Usage: InstalledPackageTest.sh SOURCE_DIR BUILD_DIR TEST_SIGNAL_PROGRAM
set -euo pipefail
source_dir=$1
build_dir=$2
make_signal=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }

cmake --install "$build_dir" --prefix "$scratch/installed" > "$scratch/install.log"
# Where it was installed, so that the unit names a tool that is there; a warning names the unit.
if command -v systemd-analyze > /dev/null; then
  unit=$scratch/installed/lib/systemd/system/orvandeldsp-live.service
  systemd-analyze verify "$unit" 2> "$scratch/verify.log" || fail "systemd-analyze: $(cat "$scratch/verify.log")"
  ! grep -q orvandeldsp-live.service "$scratch/verify.log" || fail "systemd-analyze warns: $(cat "$scratch/verify.log")"
else
  echo "systemd-analyze is not installed here, so the unit is not verified"
fi
mv "$scratch/installed" "$scratch/prefix"
prefix=$scratch/prefix
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
example=$prefix/share/doc/orvandeldsp/examples/minimal-host
config=$prefix/share/orvandel-1.0/configs/default.xml

for internal in base/Tracer.h base/HardwaredClient.h dsp/RingBuffer.h dsp/OneWriterOneReaderRingBuffer.h dbus/ChainDbus.h; do
  [ ! -e "$prefix/include/orvandeldsp-1.0/$internal" ] || fail "$internal is installed"
done
exported=$(nm -DC --defined-only "$prefix/lib/liborvandeldsp.so")
internals='Zelmar::Tools::(Tracer|DbusService)|Zelmar::HardwaredClient|Zelmar::(OneWriterOneReader)?RingBuffer'
if grep -E " ($internals)|orvandel_dsp_chain_dbus" <<< "$exported"; then
  fail "the library exports internals"
fi

(cd "$prefix/include/orvandeldsp-1.0" && find . -name '*.h' | sed 's|^\./\(.*\)|#include "\1"|') > "$scratch/all.cpp"
g++ -std=c++17 -fsyntax-only $(pkg-config --cflags orvandeldsp-1.0) "$scratch/all.cpp"

cmake -S "$example" -B "$scratch/with-cmake" -DCMAKE_PREFIX_PATH="$prefix" > /dev/null
cmake --build "$scratch/with-cmake" > /dev/null
g++ -std=c++17 -o "$scratch/with-pkg-config" "$example/main.cpp" $(pkg-config --cflags --libs orvandeldsp-1.0)
for host in "$scratch/with-cmake/minimal-host" "$scratch/with-pkg-config"; do
  LD_LIBRARY_PATH=$prefix/lib "$host" "$config" > "$scratch/host.out"
  grep -q '^output peak 0\.[1-9]' "$scratch/host.out" || fail "$host: $(cat "$scratch/host.out")"
done

tool=$prefix/bin/orvandeldsp
man_page=$prefix/share/man/man1/orvandeldsp.1
commands=$("$tool" --help | sed -n 's/^  \([a-z]\+\)  .*/\1/p')
[ "$(wc -w <<< "$commands")" -eq 10 ] || fail "the help lists other commands: $commands"
for command in $commands; do
  grep -qx "\.SS $command" "$man_page" || fail "the man page has no section on $command"
  for option in $("$tool" "$command" --help | grep -o -- '--[a-z][a-z-]*' | grep -v '^--help'); do
    grep -qF -- "${option//-/\\-}" "$man_page" || fail "the man page does not name $command $option"
  done
done
groff -man -ww -z "$man_page" 2> "$scratch/groff.log" && [ ! -s "$scratch/groff.log" ] ||
  fail "groff warns: $(cat "$scratch/groff.log")"
for completion in "r:run response reload" "run --ty:--type" "run --type :wav flac aiff caf" "types ga:gain" \
  "sound :play loop stop"; do
  words=${completion%%:*}
  reply=$(set +eu; source "$prefix/share/bash-completion/completions/orvandeldsp"
    COMP_WORDS=("$tool" $words); [ "${words: -1}" != " " ] || COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _orvandeldsp; echo "${COMPREPLY[*]}")
  [ "$reply" = "${completion#*:}" ] || fail "completing '$words' offers '$reply'"
done

"$make_signal" "$scratch/in.wav" 1
"$prefix/bin/orvandeldsp" run -q -c "$prefix/share/orvandel-1.0/configs/sounds.xml" --sound 3@0.1 \
  "$scratch/in.wav" "$scratch/out.wav" || fail "the moved tool does not play its sounds"

cmake -S "$source_dir" -B "$scratch/usr" -DCMAKE_INSTALL_PREFIX=/usr -DORVANDELDSP_BUILD_TESTS=OFF \
  -DORVANDELDSP_BUILD_BENCHMARKS=OFF > /dev/null
grep -rqF 'ORVANDELDSP_DATADIR=\"/usr/share/orvandel-1.0\"' "$scratch/usr" ||
  fail "a /usr install does not read its sounds from /usr/share/orvandel-1.0"
# The system bus reads /usr/share/dbus-1/system.d and /etc/dbus-1/system.d, not /usr/local.
for layout in /usr:/usr/lib/systemd/system:/usr/share/dbus-1/system.d \
  /usr/local:/usr/local/lib/systemd/system:/etc/dbus-1/system.d; do
  IFS=: read -r usr units policies <<< "$layout"
  root=$scratch/destdir$usr
  DESTDIR=$root cmake --install "$build_dir" --prefix "$usr" > /dev/null
  grep -qF "ExecStart=$usr/bin/orvandeldsp live --config /etc/orvandeldsp/live.xml " \
    "$root$units/orvandeldsp-live.service" || fail "the $usr unit does not start the installed tool"
  for file in "$usr/bin/orvandeldsp" "$usr/share/orvandel-1.0/sounds/touch.flac" \
    "$usr/share/orvandel-1.0/configs/live-line-in.xml" "$policies/com.orvandeldsp.Chain.conf" \
    "$policies/com.orvandeldsp.Host.conf" /etc/orvandeldsp/live.xml /etc/orvandeldsp/live.env; do
    [ -f "$root$file" ] || fail "a $usr install has no $file"
  done
done
echo "installed package OK"
