#!/bin/sh
# SPDX-License-Identifier: MIT
#
# Usage: make-page.sh LOWDOWN NAME SECTION SUMMARY VERSION INPUT.md >OUTPUT
#
# Makes a manual page of a Markdown text. Its title gives way to the section NAME that manual pages have, and its
# headings move up by one.
set -eu

lowdown=$1 name=$2 section=$3 summary=$4 version=$5 input=$6

{
	printf '# NAME\n\n%s \\- %s\n\n# DESCRIPTION\n' "$name" "$summary"
	sed -e '1{/^# /d}' -e 's/^##\(#* \)/#\1/' -- "$input"
} |
	"$lowdown" -s -Tman -M title="$name" -M section="$section" -M source="hear-sense $version" |
	awk '
		# lowdown puts the heading on a line of its own, where programs that index pages do not find it.
		/^\.SH$/ { heading = 1; next }
		heading { print ".SH " toupper($0); heading = 0; next }
		{ print }
	'
