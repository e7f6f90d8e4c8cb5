#!/usr/bin/env bash
# The man page renders without a warning and has every subcommand's section.
# Usage: check_manpage.sh MANPAGE
set -euo pipefail
page=$1
warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
[ -z "$warnings" ] || { echo "man warns: $warnings"; exit 1; }
text=$(MANWIDTH=80 man -l "$page" 2>/dev/null)
for heading in NAME SYNOPSIS DESCRIPTION SUBCOMMANDS CONCEPTS "EXIT STATUS" EXAMPLES; do
  grep -qx "$heading" <<<"$text" || { echo "no section $heading"; exit 1; }
done
for command in list publish watch groups inspect gc; do
  grep -qx "   $command" <<<"$text" || { echo "no section for $command"; exit 1; }
done
echo ok
