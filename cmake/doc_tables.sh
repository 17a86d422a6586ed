#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The tables in docs/ that repeat a header: its lock ranks, or its constants with the comments above them as reasons.
# A table stands between `<!-- table: HEADER -->` and `<!-- end -->`. Run from the top of the tree:
#   doc_tables.sh --check    fails when a page differs from its headers, or a limits.h has no table
#   doc_tables.sh --write    writes the tables anew
set -euo pipefail

die() {
    printf '%s\n' "$*" >&2
    exit 1
}

# constants HEADER: a line each, of name, value and reason, with tabs between them.
constants() {
    awk '
        function text(line) { sub(/^[^\/]*\/\/ */, "", line); gsub(/\|/, "\\|", line); return line }
        !open && /^ *\/\// { reason = reason (reason ? " " : "") text($0); next }
        !open && !/^ *(inline|static) constexpr / { reason = ""; next }
        {
            if (/\/\//) { reason = reason (reason ? " " : "") text($0); sub(/ *\/\/.*/, "") }
            sub(/^ +/, open ? " " : "")
            open = open $0
            if (!/;$/) next
            # TYPE NAME = VALUE; or TYPE NAME{VALUE}; which is NAME = TYPE{VALUE}.
            match(open, /[A-Za-z0-9_]+ *[={(]/)
            name = substr(open, RSTART, RLENGTH - 1)
            value = substr(open, RSTART + RLENGTH - 1, length(open) - RSTART - RLENGTH + 1)
            type = substr(open, 1, RSTART - 2)
            sub(/^(inline|static) constexpr /, "", type)
            if (!sub(/^= */, "", value)) value = type value
            sub(/ *$/, "", name)
            print name "\t" value "\t" reason
            open = reason = ""
        }' "$1"
}

# readable VALUE: 16 MiB for 16U * 1024 * 1024, 5 s for std::chrono::seconds(5), 65,536 for 65'536; else the expression.
readable() {
    local value number suffix=
    local -A units=([hours]=h [minutes]=min [seconds]=s [milliseconds]=ms [microseconds]=µs [nanoseconds]=ns)
    value="$(sed -E "s/([0-9])'/\1/g; s/\b([0-9]+)[uUlL]+\b/\1/g; s/std:://g
        s/(u?int[0-9]+_t|size_t)[({]([0-9]+)[)}]/\2/g" <<<"$1")"
    number="$value"
    if [[ "$value" =~ ^chrono::([a-z]+)[\({](.*)[\)}]$ && -n "${units[${BASH_REMATCH[1]}]-}" ]]; then
        suffix=" ${units[${BASH_REMATCH[1]}]}"
        number="${BASH_REMATCH[2]}"
    elif [[ "$value" =~ ^([0-9]+)\ \*\ k?([KMG]iB)$ ]]; then
        suffix=" ${BASH_REMATCH[2]}"
        number="${BASH_REMATCH[1]}"
    fi
    if [[ ! "$number" =~ ^-?[0-9]+(\ (\*|<<)\ [0-9]+)*$ ]]; then
        printf '`%s`' "$1"
        return
    fi
    if [[ -z "$suffix" && "$number" =~ (\*\ 1024|<<) ]]; then
        local unit
        number=$((number))
        for unit in KiB MiB GiB; do
            ((number % 1024 == 0 && number > 0)) || break
            number=$((number / 1024)) suffix=" $unit"
        done
    fi
    printf '%s%s' "$(sed -E ':a; s/([0-9])([0-9]{3})(,|$)/\1,\2\3/; ta' <<<"$((number))")" "$suffix"
}

# table HEADER: the ranks in it, if there are any, else its constants.
table() {
    [[ -f "$1" ]] || die "$1: there is no such header"
    if grep -q '^ *RANK(' "$1"; then
        printf '| | rank | guards |\n|--:|---|---|\n'
        sed -z 's/ *\\\n */ /g' "$1" | grep -oE 'RANK\([A-Za-z]+, "[^"]*"\)' |
            sed -E 's/^RANK\(([A-Za-z]+), "(.*)"\)$/\1\t\2/' |
            awk -F '\t' '{ printf "| %d | `%s` | %s |\n", NR, $1, $2 }'
        return
    fi
    local name value reason found
    found="$(constants "$1")"
    [[ -n "$found" ]] || die "$1: has no constants"
    printf '| constant | value | reason |\n|---|---|---|\n'
    while IFS=$'\t' read -r name value reason; do
        printf '| `%s` | %s | %s |\n' "$name" "$(readable "$value")" "$reason"
    done <<<"$found"
}

# render PAGE: the page as it has to be.
render() {
    local line header=
    while IFS= read -r line; do
        [[ "$line" == '<!-- end -->' ]] && header=
        [[ -n "$header" ]] || printf '%s\n' "$line"
        if [[ "$line" =~ ^'<!-- table: '(.*)' -->'$ ]]; then
            header="${BASH_REMATCH[1]}"
            printf '\n%s\n\n' "$(table "$header")"
        fi
    done <"$1"
    [[ -z "$header" ]] || die "$1: the table of $header has no end"
}

[[ "${1-}" == --check || "${1-}" == --write ]] || die "usage: doc_tables.sh --check | --write"
failed=0
while IFS= read -r page; do
    new="$(render "$page")" || exit 1
    if [[ "$1" == --write ]]; then
        printf '%s\n' "$new" >"$page"
    elif ! diff -u --label "$page" --label "$page, from its headers" "$page" - <<<"$new"; then
        failed=1
    fi
done < <(grep -rl '^<!-- table: ' docs)
while IFS= read -r header; do
    if ! grep -rqxF "<!-- table: $header -->" docs; then
        printf '%s: no page of docs/ has its table\n' "$header"
        failed=1
    fi
done < <(find include json ipc kits log platform sa_load service tools -name '*limits.h')
exit "$failed"
