# SPDX-License-Identifier: MIT
#
# Completion of hsctl for bash. hsctl itself knows what may stand where: options, sub-commands and live names.

_hsctl()
{
	local line=${COMP_LINE:0:COMP_POINT} words current breaks prefix candidates
	read -ra words <<<"$line"
	# Bash splits words at more than spaces, at the "@" of a name for one.
	[[ $line == *[[:space:]] ]] && words+=("")
	current=${words[-1]}
	mapfile -t candidates < <("${words[0]}" complete -- "${words[@]:1}" 2>/dev/null)
	# What stands before the last such split is not to be repeated.
	breaks=${COMP_WORDBREAKS//[^=:@]/}
	prefix=
	[[ -n $breaks && $current == *[$breaks]* ]] && prefix=${current%"${current##*[$breaks]}"}
	COMPREPLY=("${candidates[@]#"$prefix"}")
}

complete -F _hsctl hsctl
