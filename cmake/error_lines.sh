#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fails when docs/troubleshooting.md lacks an error line of the code. "…" stands there for what a line fills in. Run
# from the top of the tree.
set -euo pipefail

failed=0
while IFS= read -r line; do
    grep -qF -- "\`$line\`" docs/troubleshooting.md && continue
    printf 'docs/troubleshooting.md does not explain: %s\n' "$line"
    failed=1
done < <(find ipc json kits platform sa_load service \( -name '*.h' -o -name '*.cpp' \) -print0 | xargs -0 perl -0777 -ne '
    while (/\b(?:[A-Z]+_LOGE(?:_OF)?\(|KITS_LOG_AT\([^"]*KOLOG_ERROR,|KITS_LINE\()[^";]*?((?:"(?:[^"\\]|\\.)*"\s*)+)/g) {
        my $text = join "", $1 =~ /"((?:[^"\\]|\\.)*)"/g;
        $text =~ s/\\(.)/$1/g;
        $text =~ s/%\{public\}z?[a-z]/…/g;
        $text =~ s/\s+$//;
        print "$text\n" if $text =~ /^\S/;  # not a part of a line that a macro completes
    }' | sort -u)
exit "$failed"
