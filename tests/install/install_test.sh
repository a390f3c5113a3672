#!/usr/bin/env bash
# Installs the build into a temporary prefix, as `cmake --install` and
# `make install PREFIX=...` do, and runs the installed program: the files are
# where Debian's conventions expect them, the manual page covers every
# command the program offers, and the installed catalogues translate.
# usage: install_test.sh BUILD_DIR SOURCE_DIR
set -u
build=$1
source=$(cd "$2" && pwd)
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

cmake --install "$build" --prefix "$prefix" >/dev/null || { echo "FAIL: cmake --install"; exit 1; }
program=$prefix/bin/phoneconduit
manual=$prefix/share/man/man1/phoneconduit.1
for file in "$program" "$manual" "$prefix"/share/locale/{de,fr,en}/LC_MESSAGES/Synchro.mo; do
  [ -f "$file" ] || fail "not installed: ${file#"$prefix"/}"
done
[ -x "$program" ] || { echo "FAIL: no installed program"; exit 1; }

# The manual page has a section for every command, and the sections it
# must have.
commands=$("$program" --help | sed -n '/^Subcommands:/,/^$/p' | awk 'NR > 1 && NF {print $1}')
[ -n "$commands" ] || fail "the program lists no commands"
for command in $commands; do
  grep -q "^\.SS \"$command " "$manual" || fail "the manual page has no section for $command"
done
for section in NAME SYNOPSIS DESCRIPTION COMMANDS "EXIT STATUS" FILES EXAMPLES; do
  grep -q "^\.SH \"\?$section\"\?$" "$manual" || fail "the manual page has no $section section"
done
"$program" --version | grep -q '[0-9]\.[0-9]' || fail "--version"

# A phone number of the "other" type keeps its label on a UIQ phone only when
# the label is one the phone writes itself, in the user's language: German's
# "Mobil privat" is one under LANGUAGE=de, and not without a catalogue.
record=$prefix/labelled.plist
cat >"$record" <<'PLIST'
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
  <key>entityName</key><string>Contacts.Contact</string>
  <key>firstName</key><string>Anna</string>
  <key>phoneNumbers</key><array><dict>
    <key>entityName</key><string>Contacts.PhoneNumber</string>
    <key>value</key><string>+49 30 1234</string>
    <key>type</key><string>other</string>
    <key>label</key><string>Mobil privat</string>
  </dict></array>
</dict></plist>
PLIST
format() {
  (cd "$prefix" && env -u PHONECONDUIT_LOCALEDIR LC_ALL= LANG= LANGUAGE="$1" "$program" format \
    --device "$source/examples/devices/organiser-phone.plist" \
    --entities "$source/examples/devices/organiser-phone.entities.plist" "$record")
}
german=$(format de) || fail "format under LANGUAGE=de"
grep -q "Mobil privat" <<<"$german" || fail "LANGUAGE=de: the German label was dropped"
plain=$(format C) || fail "format under LANGUAGE=C"
grep -q "Mobil privat" <<<"$plain" && fail "LANGUAGE=C: the German label was kept"

[ "$failures" -eq 0 ] && echo "installed and ran from $prefix"
exit $((failures != 0))
