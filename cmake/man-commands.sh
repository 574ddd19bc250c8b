#!/bin/sh
# man-commands.sh TOOL NAME
# Prints a help2man include section, [COMMANDS], holding the --help of every
# subcommand at every depth, so that the man page carries the whole command
# line reference and stays what the tool says. Subcommands are the names listed
# under "Subcommands:" in each help text; the closing paragraph that repeats the
# tool's own help is dropped.
set -eu
tool=$1
name=$2
top=$("$tool" --help)
footer=$(printf '%s\n' "$top" | awk 'BEGIN { RS = "" } { last = $0 } END { print last }')

subcommands() {
    printf '%s\n' "$1" | awk '/^Subcommands:$/ { on = 1; next }
        on && /^$/ { exit }
        on && /^  [^ ]/ { print $1 }'
}

# Help text as no-fill roff: backslashes and minus signs escaped, no line taken
# for a request.
roff() {
    sed -e 's/\\/\\e/g' -e 's/-/\\-/g' -e "s/^[.']/\\\\\\&&/"
}

walk() {
    for sub in $(subcommands "$2"); do
        words="$1 $sub"
        # shellcheck disable=SC2086 # the words are the command path
        help=$("$tool" $words --help)
        case $help in
            *"$footer") help=$(printf '%s' "${help%"$footer"}") ;;  # and its blank lines
        esac
        printf '.SS "%s%s"\n.nf\n' "$name" "$words"
        printf '%s\n' "$help" | roff
        printf '.fi\n'
        walk "$words" "$help"
    done
}

echo "[COMMANDS]"
walk "" "$top"
