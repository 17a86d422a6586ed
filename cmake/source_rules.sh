#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Rules on the text of sources that include paths alone cannot keep. Run from the top of the tree.
set -uo pipefail
shopt -s lastpipe  # so that `failed` is set in this shell

product=(include log json ipc kits sa_load platform service tools)
failed=0

# rule MESSAGE: fails with it when standard input has lines, and shows them.
rule() {
    local found
    found="$(cat)"
    [[ -z "$found" ]] && return
    printf '%s:\n%s\n' "$1" "$found"
    failed=1
}
# lines REGEX FOLDER...: matching lines of the sources there.
lines() { grep -rnE --include='*.h' --include='*.cpp' "$@" 2>/dev/null; }

lines '^ *# *include +["<](/|.*\.\./)' "${product[@]}" tests bench fuzz examples |
    rule "An include leaves its folder by path; name the component in USES"
lines '^ *# *include +"(native_migrate|json_parse|migrate_)' platform |
    rule "The platform includes the library"
lines '^ *# *include +"' include platform/*/include | grep -vE '"(native_migrate|vexa)/' |
    rule "A public header includes one that is not public"
lines '^ *# *include +"' tools | grep -E '"vexa/testing/' |
    rule "A tool includes test doubles"
lines '^ *# *include +"(.*/)?transport/' "${product[@]}" | grep -vE '^platform/ipc/.*"transport/limits.h"' |
    rule "A layer of the transport is included past its component"
lines 'KoLogPrint' "${product[@]}" | grep -vE '^platform/log/|: *//' |
    rule "A log line whose format is not checked while compiling; use KoLogLine of checked_log.h"
lines '\bconst(expr)? [A-Za-z_:<>*, ]*\b[A-Z][A-Z0-9]*(_[A-Z0-9]+)*( =|\{|\[)' "${product[@]}" | grep -vE '^include/|/include/|[:;] *//' |
    rule "A constant of the inside is not in kUpperCamelCase (docs/naming.md)"
lines 'cJSON_(InitHooks|GetErrorPtr)' "${product[@]}" |
    rule "These change or read state of every user of cJSON in the process"
find "${product[@]}" tests bench fuzz examples -name '*.h' -exec grep -L '^#pragma once' {} + 2>/dev/null |
    rule "A header without #pragma once"
find "${product[@]}" tests bench fuzz examples \( -name '*.h' -o -name '*.cpp' \) -exec \
    awk 'FNR == 1 && !/SPDX-License-Identifier: Apache-2.0/ { print FILENAME }' {} + 2>/dev/null |
    rule "A first line that does not state the licence"

exit "$failed"
