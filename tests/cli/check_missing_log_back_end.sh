#!/usr/bin/env bash
# The tool with --verbose, where the logging library is found without its
# Boost.Log back end beside it: it warns once and does its work.
# Usage: check_missing_log_back_end.sh TOOL LIBFOUNDATION_LOG
set -euo pipefail
tool=$1
library=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$library" "$work/"
cd "$work"
status=0
LD_LIBRARY_PATH="$work" "$tool" --verbose list --group "erNoBackEnd$$" >"$work/out" 2>"$work/err" || status=$?
fail() { echo "check_missing_log_back_end: $*" >&2; echo "stderr:" >&2; cat "$work/err" >&2; exit 1; }
[ "$status" -eq 0 ] || fail "exit status $status, not 0"
grep -q '^endpointregistry: warning: --verbose: Log sink "stderr": the Boost.Log back end could not be loaded: .*libfoundation_log_boost.so.0.*; going on without diagnostics$' "$work/err" \
  || fail "no warning naming the back end"
[ "$(grep -c . "$work/err")" -eq 1 ] || fail "more than the one warning on stderr"
"$tool" list --group "erNoBackEnd$$" >"$work/expected"
cmp -s "$work/out" "$work/expected" || fail "its output differs from the same command's without --verbose"
echo "ok"
