#!/usr/bin/env bash
# Every function the library exports is declared in the public header with a
# documentation comment ("/** ... */") right before its declaration, as is
# every other ZANTREL_API declaration there. Usage: LIBRARY HEADER
set -eu
export LC_ALL=C
library=$1
header=$2

# NAME documented|undocumented, for each ZANTREL_API declaration. A doc
# comment counts for the declaration that follows it directly (no blank or
# other line between), so a group's comment never documents a function.
declared=$(awk '
  function reset() { doc = 0 }
  in_comment { if (index($0, "*/")) { in_comment = 0; doc = comment_doc } ; next }
  {
    line = $0; sub(/^[ \t]+/, "", line)
    if (decl != "") { decl = decl " " line }
    else if (line ~ /^\/\*\*[^<]/ || line == "/**") {
      if (index(line, "*/")) { doc = 1 } else { in_comment = 1; comment_doc = 1 }
      next
    } else if (line ~ /^\/\*/) {
      if (!index(line, "*/")) { in_comment = 1; comment_doc = 0 }
      reset(); next
    } else if (line ~ /ZANTREL_API/ && line !~ /^#/) { decl = line; documented = doc }
    else { reset(); next }
    if (index(decl, ";")) {
      name = decl
      if (index(name, "(")) { sub(/[ \t]*\(.*/, "", name) } else { sub(/[ \t]*[\[;].*/, "", name) }
      sub(/.*[ \t*]/, "", name)
      print name, (documented ? "documented" : "undocumented")
      decl = ""; reset()
    }
  }' "$header")

problems=$(
  printf '%s\n' "$declared" | awk '$2 == "undocumented" { print "undocumented in the header: " $1 }'
  nm -D --defined-only "$library" | awk '$2 == "T" { sub(/@.*/, "", $3); print $3 }' | sort -u |
    while read -r name; do
      printf '%s\n' "$declared" | awk -v n="$name" '$1 == n { found = 1 } END { exit !found }' ||
        echo "exported but not declared with ZANTREL_API in the header: $name"
    done
)
if [[ -n $problems ]]; then
  printf '%s\n' "$problems"
  echo "document each function where it is declared: what it does, every result and when, what it logs, who may call it"
  exit 1
fi
echo "$(printf '%s\n' "$declared" | wc -l) declarations of $(basename "$header"), each documented"
