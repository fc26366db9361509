# Completes what `qrd` takes, as its own help says: commands, options, identifiers of apps; elsewhere files.
_qrd() {
    local word=${COMP_WORDS[COMP_CWORD]} words=("${COMP_WORDS[@]:1:COMP_CWORD-1}") command=() help known=
    help=$("$1" --help 2>/dev/null)
    while [[ ${words[0]-} ]] && grep -q "^  ${words[0]} " <<<"$help"; do
        command+=("${words[0]}")
        words=("${words[@]:1}")
        help=$("$1" "${command[@]}" --help 2>/dev/null)
    done
    if [[ $word = -* ]]; then
        known=$(sed -nE 's/^  (-.,)?(--[a-z-]+).*/\2/p' <<<"$help")
    elif grep -q '^Usage:.* SUBCOMMAND' <<<"$help"; then
        known=$(sed -nE 's/^  ([a-z]+) .*/\1/p' <<<"$help")
    elif grep -q '^Usage:.* DIR ID' <<<"$help" && [[ -d ${words[0]-} ]]; then
        known=$("$1" apps "${words[0]}" --json 2>/dev/null | sed -nE 's/.*"identifier": "([^"]*)".*/\1/p')
    fi
    mapfile -t COMPREPLY < <(compgen -W "$known" -- "$word")
}
complete -o default -F _qrd qrd
