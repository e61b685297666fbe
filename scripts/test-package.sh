#!/usr/bin/env bash
# Tests the Debian package of a built tree as a user would get it: makes it with `cpack -G DEB`,
# unpacks it into a scratch root and checks what it carries there: both executables run (zirnimg
# names the build's version and revision, the signer prints its usage block and exits 255) and are
# stripped, the man pages render and document every command, the bash completion loads and
# completes, the copyright file is there and the dependencies were found.
#   scripts/test-package.sh BUILD_DIR
set -euo pipefail
build=$(realpath "${1:?usage: $0 BUILD_DIR}")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failures=0
check() {  # check DESCRIPTION COMMAND...: runs COMMAND, reports it as one line
  if "${@:2}" >"$scratch/out" 2>&1; then
    echo "ok    $1"
  else
    echo "FAIL  $1"
    sed 's/^/      /' "$scratch/out"
    failures=$((failures + 1))
  fi
}

(cd "$build" && cpack -G DEB -B "$scratch/cpack" >"$scratch/cpack.log" 2>&1) ||
  { cat "$scratch/cpack.log"; echo "FAIL: cpack -G DEB"; exit 1; }
deb=$(echo "$scratch"/cpack/zirn-img-tools_*.deb)
echo "== $(basename "$deb")"
dpkg-deb --info "$deb"
dpkg-deb --contents "$deb"
root=$scratch/root
dpkg -x "$deb" "$root"
bin=$root/usr/bin man1=$root/usr/share/man/man1
completion=$root/usr/share/bash-completion/completions/zirnimg

version=$(dpkg-deb --field "$deb" Version)
revision=$(sed -n 's/^#define ZIRN_REVISION "\(.*\)"$/\1/p' "$build/generated/zirn_revision.h")
version_says() { "$bin/zirnimg" --version | grep -Fx "zirnimg $version (revision $revision)"; }
signer_usage() {
  local rc=0
  "$bin/ZirnImgSignEnTool" >"$scratch/usage" || rc=$?
  cat "$scratch/usage"
  [ "$rc" -eq 255 ] && [ "$(wc -l <"$scratch/usage")" -eq 5 ] &&
    head -n1 "$scratch/usage" | grep -q '^Usage: ZirnImgSignEnTool '
}
stripped() { local sections; sections=$(readelf -S --wide "$1") && ! grep -F .symtab <<<"$sections"; }
check "zirnimg --version says $version (revision $revision)" version_says
check "the signer prints its usage block and exits 255" signer_usage
check "zirnimg is stripped" stripped "$bin/zirnimg"
check "ZirnImgSignEnTool is stripped" stripped "$bin/ZirnImgSignEnTool"

# A page renders without a groff warning and has the sections every page needs.
renders() {
  local page=$1 text
  [ -f "$page" ] && gzip -t "$page" || { echo "no page $page"; return 1; }
  zcat "$page" | groff -man -Tutf8 -ww -z 2>&1 | grep . && return 1
  text=$(MANWIDTH=100 man -l "$page" 2>&1)
  for section in NAME SYNOPSIS DESCRIPTION "SEE ALSO"; do
    grep -qx "$section" <<<"$text" || { echo "no $section in $page"; return 1; }
  done
}
# Every command zirnimg lists has its own entry in the COMMANDS section; the exit statuses follow.
documents_commands() {
  local page text cmd commands
  page=$(MANWIDTH=200 man -l "$man1/zirnimg.1.gz")
  grep -qx "EXIT STATUS" <<<"$page" || { echo "no EXIT STATUS"; return 1; }
  text=$(sed -n '/^COMMANDS$/,/^[A-Z]/p' <<<"$page")
  commands=$("$bin/zirnimg" --help | sed -n '/^commands:/,/^$/s/^  \([a-z][a-z0-9-]*\).*/\1/p')
  [ -n "$commands" ] || { echo "zirnimg --help lists no commands"; return 1; }
  for cmd in $commands; do
    grep -q "^ *zirnimg $cmd\b" <<<"$text" || { echo "no entry for $cmd"; return 1; }
  done
}
check "the man page of zirnimg renders" renders "$man1/zirnimg.1.gz"
check "the man page of ZirnImgSignEnTool renders" renders "$man1/ZirnImgSignEnTool.1.gz"
check "the man page of zirnimg documents every command" documents_commands

# Sourced in a bash of its own, the completion completes commands, options and file names.
completes() {
  bash -c 'source "$1" && complete -p zirnimg || exit 1
    c() { COMP_WORDS=("${@:2}"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _zirnimg
          [ "${COMPREPLY[*]}" = "$1" ] || { echo "[${*:2}] gives [${COMPREPLY[*]}], not [$1]"; exit 1; }; }
    cd "$2"
    c "verify" zirnimg ver
    c "--key-hash --key" zirnimg verify x.img --key
    c "x.img" zirnimg verify --cfg x
    c "--digest-out" zirnimg prepare --d
    c "" zirnimg keycfg --img-ver ""' - "$completion" "$1"
}
mkdir "$scratch/files" && touch "$scratch/files/x.img"
check "the bash completion loads and completes" completes "$scratch/files"

check "the copyright file is in machine-readable form" \
  grep -q '^Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/$' \
  "$root/usr/share/doc/zirn-img-tools/copyright"
check "the dependencies were found (libc6, libstdc++6)" \
  bash -c 'dpkg-deb --field "$1" Depends | grep libc6 | grep libstdc++6' - "$deb"

if [ "$failures" -eq 0 ]; then
  echo "PASS: package test"
else
  echo "FAIL: package test, $failures check(s) failed"
  exit 1
fi
