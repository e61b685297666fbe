#!/usr/bin/env bash
# Writes a gzip'ed man page (section 1) from a built program's own help, so the page never drifts
# from the program:
#   gen-man.sh commands OUT.1.gz SUMMARY FOOTER SEE_ALSO [RUNNER...] PROGRAM
#     a program with subcommands: its --help (usage, the "commands:" list, which names the commands
#     to ask for their own --help, "exit status:"), each COMMAND --help and --version;
#   gen-man.sh usage OUT.1.gz SUMMARY FOOTER SEE_ALSO [RUNNER...] PROGRAM
#     a program that only prints a "Usage:" block when run without arguments.
# SUMMARY is the NAME line's text, FOOTER the page's source line when the program has no --version,
# SEE_ALSO the other page to name (e.g. "zirnimg(1)"). RUNNER (e.g. an emulator) prefixes each run.
set -euo pipefail
shopt -s inherit_errexit
[ $# -ge 6 ] || { echo "usage: $0 commands|usage OUT.1.gz SUMMARY FOOTER SEE_ALSO [RUNNER...] PROGRAM" >&2; exit 2; }
mode=$1 out=$2 summary=$3 footer=$4 see_also=$5
shift 5
program=("$@")
name=$(basename "${program[-1]}")
run() { "${program[@]}" "$@"; }

# Help text to roff: blank lines start paragraphs, indented lines stay as they are (tables,
# lists), other lines are filled.  Backslashes, hyphens and a leading "." or "'" (a request to roff)
# are escaped, so that every option renders as typed.
to_roff() {
  awk '
    function esc(s) { gsub(/\\/, "\\e", s); gsub(/-/, "\\-", s); if (s ~ /^[.\047]/) s = "\\&" s; return s }
    function end_nf() { if (nf) { print ".fi"; print ".RE"; nf = 0 } }
    /^[ \t]*$/ { end_nf(); if (seen) para = 1; next }
    { if (para) { print ".PP"; para = 0 } seen = 1 }
    /^[ \t]/ { if (!nf) { print ".RS 2"; print ".nf"; nf = 1 } sub(/^  /, ""); print esc($0); next }
    { end_nf(); print esc($0) }
    END { end_nf() }'
}
# The blank-line separated block of $1 whose first line starts with $2 (any case), without that
# prefix when $3 is "strip".
block() {
  awk -v head="$2" -v strip="${3:-}" 'BEGIN { RS = "" }
    tolower(substr($0, 1, length(head))) == head {
      if (strip == "strip") { $0 = substr($0, length(head) + 1); sub(/^[ \t]*\n?/, "") }
      print; exit }' <<<"$1"
}
# The blocks of $1 that are none of usage, commands and exit status.
other_blocks() {
  awk 'BEGIN { RS = ""; ORS = "\n\n" } tolower($0) !~ /^(usage|commands|exit status):/' <<<"$1"
}
# The program's name in bold where a line starts with it.
bold_name() { sed "s/^$name\\b/\\\\fB$name\\\\fR/"; }

page() {
  local upper date
  upper=$(tr '[:lower:]' '[:upper:]' <<<"$name")
  date=$(date -u -d "@${SOURCE_DATE_EPOCH:-$(date +%s)}" +%Y-%m-%d)
  printf '.TH %s 1 "%s" "%s" "User Commands"\n' "$upper" "$date" "$footer"
  printf '.SH NAME\n%s \\- %s\n' "$name" "$(to_roff <<<"$summary")"
}

commands_page() {
  local help version synopsis commands cmd text exit_status
  local -A cmd_help
  help=$(run --help)
  version=$(run --version)
  [ -z "$version" ] || footer=$version
  synopsis=$(block "$help" "usage:" strip)
  commands=$(block "$help" "commands:" | awk 'NR > 1 && /^  [a-z]/ { print $1 }')
  [ -n "$synopsis" ] && [ -n "$commands" ] || { echo "$0: no usage or commands in $name --help" >&2; exit 1; }
  for cmd in $commands; do
    cmd_help[$cmd]=$(run "$cmd" --help)
  done
  page
  echo ".SH SYNOPSIS"
  echo ".nf"
  to_roff <<<"$synopsis" | bold_name
  for cmd in $commands; do
    block "${cmd_help[$cmd]}" "usage:" strip | to_roff | bold_name
  done
  echo ".fi"
  echo ".SH DESCRIPTION"
  to_roff <<<"${summary^}."
  text=$(other_blocks "$help")
  [ -z "$text" ] || { echo ".PP"; to_roff <<<"$text"; }
  echo ".PP"
  to_roff <<<"Each command prints its own help with $name COMMAND --help."
  echo ".SH COMMANDS"
  for cmd in $commands; do
    printf '.SS "%s"\n' "$(block "${cmd_help[$cmd]}" "usage:" strip | head -n1 | to_roff)"
    other_blocks "${cmd_help[$cmd]}" | to_roff
  done
  exit_status=$(block "$help" "exit status:" strip)
  [ -z "$exit_status" ] || { echo ".SH EXIT STATUS"; to_roff <<<"$exit_status"; }
}

usage_page() {
  local usage rc=0
  usage=$(run) || rc=$?
  [ "$rc" -ne 0 ] && [[ $usage == Usage:* ]] || { echo "$0: $name printed no usage block" >&2; exit 1; }
  page
  echo ".SH SYNOPSIS"
  head -n1 <<<"$usage" | sed 's/^Usage: *//' | to_roff | bold_name
  echo ".SH DESCRIPTION"
  to_roff <<<"${summary^}."
  # "   [arg]: text" lines become a tagged list; further lines continue the text before them.
  tail -n +2 <<<"$usage" | awk '
    function esc(s) { gsub(/\\/, "\\e", s); gsub(/-/, "\\-", s); if (s ~ /^[.\047]/) s = "\\&" s; return s }
    match($0, /^[ \t]*[^ \t:]+:/) {
      tag = substr($0, 1, RLENGTH - 1); sub(/^[ \t]*/, "", tag)
      print ".TP"; print "\\fI" esc(tag) "\\fR"
      $0 = substr($0, RLENGTH + 1)
    }
    { sub(/^[ \t]*/, ""); if ($0 != "") print esc($0) }'
}

case $mode in
  commands) body=$(commands_page) ;;
  usage) body=$(usage_page) ;;
  *) echo "$0: unknown mode $mode" >&2; exit 2 ;;
esac
body+=$'\n.SH SEE ALSO\n'"$(to_roff <<<"$see_also" | sed 's/^\([^ (]*\)(\([0-9]\))/\\fB\1\\fR(\2)/')"
# Written beside the target and renamed, so an interrupted build never leaves a partial page.
mkdir -p "$(dirname "$out")"
gzip -9n <<<"$body" >"$out.tmp"
mv -f "$out.tmp" "$out"
