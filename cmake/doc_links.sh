#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fails when a page links to a file of this tree, or to a heading, that is not there. Run from the top of the tree.
set -euo pipefail

find . -maxdepth 3 -name '*.md' -not -path './build/*' -not -path './.*' -print0 | xargs -0 perl -CSD -e '
    sub text { open my $file, "<:utf8", $_[0] or return undef; local $/; my $text = <$file>; $text =~ s/^```.*?^```//gms; $text }
    sub anchors {
        my %found;
        for (text($_[0]) =~ /^#+ +(.*)$/gm) {
            s/\[(.*?)\]\(.*?\)/$1/g; s/[^\w\- ]//g; s/ /-/g;
            $found{lc $_} = 1;
        }
        \%found;
    }
    for my $page (@ARGV) {
        (my $folder = $page) =~ s/[^\/]*$//;
        for (text($page) =~ /\]\(([^)\s]+)\)/g) {
            next if /^[a-z]+:/;
            my ($path, $anchor) = /^([^#]*)#?(.*)$/;
            my $file = $path eq "" ? $page : "$folder$path";
            my $isThere = -e $file && ($anchor eq "" || anchors($file)->{$anchor});
            print "$page links to $_, which is not there\n" and $failed = 1 unless $isThere;
        }
    }
    exit($failed // 0)'
