#!/bin/sh
# Writes Contract.cpp: the clauses of the seam's headers, and what the library asks of a set by the
# table of the guide.
# usage: contract.sh GUIDE HEADER...
set -eu
guide=$1
shift
echo '#include "Question.h"

namespace conformance {

const std::map<std::string, std::string>& Clauses() {
  static const std::map<std::string, std::string> clauses = {'
awk '
  function finish() {
    gsub(/["\\]/, "\\\\&", text)
    if (id != "") printf "      {\"%s\", \"%s\"},\n", id, text
    id = ""
  }
  / \* [A-Z][A-Z][A-Z]-[0-9][0-9]  / { finish(); id = $2; text = $0; sub(/.*-[0-9][0-9]  /, "", text); next }
  id != "" && / \*         / { sub(/ \* +/, " "); text = text $0; next }
  { finish() }
  END { finish() }' "$@"
echo '  };
  return clauses;
}

std::vector<Asked> AskedOfSets(const std::string& kind) {
  std::vector<Asked> found;
  for (const Asked& asked : {'
awk -F '|' '
  /^## / { isTable = /What the library asks/ }
  isTable && $3 ~ /`/ {
    for (i = 2; i <= 4; ++i) { gsub(/[` ]+$|^[` ]+/, "", $i) }
    printf "      Asked{\"%s\", \"%s\", \"%s\"},\n", $2, $3, $4
  }' "$guide"
echo '  }) {
    if (asked.kind == kind) {
      found.push_back(asked);
    }
  }
  return found;
}

}  // namespace conformance'
