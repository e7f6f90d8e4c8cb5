#!/usr/bin/env bash
# Writes the man page endpointregistry.1 from the tool's own --help texts
# (help2man), with a section per subcommand and the sections below.
# Usage: make-manpage.sh TOOL OUTPUT
set -euo pipefail
tool=$1
output=$2
include=$(mktemp)
trap 'rm -f "$include"' EXIT
{
  echo "[DESCRIPTION]"
  echo "Processes of one machine publish and discover endpoints (a pair of data strings under a group"
  echo "tag) in named POSIX shared memory, with no server. An endpoint stays listed exactly as long as"
  echo "its publisher holds it, and disappears when the publisher withdraws it or dies. Endpoints can"
  echo "be shared with other users through Unix groups (trustees)."
  echo
  echo "[SUBCOMMANDS]"
  for command in $("$tool" --help | sed -n 's/^  \([a-z]\+\)  .*/\1/p'); do
    echo ".SS $command"
    echo ".nf"
    "$tool" "$command" --help | sed 's/\\/\\e/g; s/^\./\\\&./'
    echo ".fi"
  done
  cat <<'TEXT'
[CONCEPTS]
Two publications of one user are the same endpoint when their group tags are equal and their two
strings joined together are equal: "10.0.0 .25432" duplicates "10.0.0.2 5432".
A group tag (\fB\-\-group\fR) is any string that sorts endpoints; a trustee (\fB\-\-trustee\fR) is a
Unix group, one of the user's supplementary groups, whose members may list the endpoint.

[EXIT STATUS]
0 success; 1 an error (its message on stderr); 2 a bad command line; 3 when
\fBlist \-\-exit\-status\fR finds nothing. \fBpublish ... \-\- COMMAND\fR exits with the command's status.

[EXAMPLES]
.nf
endpointregistry publish 10.0.0.1 8080 \-\-group web &
endpointregistry list \-l \-\-group web
endpointregistry watch \-\-group web \-\-json
endpointregistry publish 10.0.0.1 8080 \-\-group web \-\- ./server
.fi

[SEE ALSO]
The README and docs/cli.md of the endpointregistry sources.
TEXT
} >"$include"
help2man --no-info --no-discard-stderr --name "publish and discover endpoints in shared memory" \
  --include "$include" --output "$output" "$tool"
