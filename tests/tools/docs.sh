#!/usr/bin/env bash
# The man pages and shell completions: lint-clean, working, and naming every
# command and option that tvkit's help texts name, so they cannot drift from
# the tool.
# usage: docs.sh SOURCE_DIR TVKIT_BINARY
set -u
src=$1
tvkit=$2
failed=0
fail() { echo "FAIL: $*"; failed=$((failed + 1)); }

# Man pages: no warnings from groff (and mandoc, where installed).
if command -v groff >/dev/null; then
  for page in "$src/man/tvkit.1" "$src/man/tvd.8"; do
    out=$(groff -man -ww -z "$page" 2>&1)
    [[ -z $out ]] || fail "groff warns on $page: $out"
    if command -v mandoc >/dev/null; then
      out=$(mandoc -Tlint "$page" 2>&1)
      [[ -z $out ]] || fail "mandoc warns on $page: $out"
    fi
  done
else
  echo "SKIP: groff is not installed; the man pages are not linted"
fi

# Bash: the words that completing the last of these words offers.
bash_complete() {
  bash --norc -c '. "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _tvkit; echo "${COMPREPLY[*]}"' \
    _ "$src/completions/tvkit.bash" "$@"
}
while IFS='|' read -r line expected; do
  read -r -a words <<<"$line"
  [[ $line == *' ' ]] && words+=('')
  got=$(bash_complete "${words[@]}")
  [[ $got == "$expected" ]] || fail "bash completion of '$line' gave '$got', not '$expected'"
done <<'CASES'
tvkit el|elect
tvkit match --a|--all-versions --all
tvkit --service /tmp/s hold --a|--apps
tvkit help rel|release
tvkit match --flags |
CASES

if command -v zsh >/dev/null; then
  zsh -n "$src/completions/_tvkit" || fail "zsh -n rejects completions/_tvkit"
else
  echo "SKIP: zsh is not installed; completions/_tvkit is not checked"
fi

# Every command and option of the overview, and every option of each
# command's usage lines, is in the man page and both completions.
man=$(<"$src/man/tvkit.1")
zsh=$(<"$src/completions/_tvkit")
check_options() { # CONTEXT OFFERED-BY-BASH OPTION...
  local context=$1 offered=" $2 " opt r
  shift 2
  for opt; do
    r=${opt//-/\\-}
    [[ $man == *"$r\\f"* || $man == *"$r "* || $man == *"$r"$'\n'* ]] || fail "tvkit.1 does not describe $context$opt"
    [[ $offered == *" $opt "* ]] || fail "the bash completion does not offer $context$opt"
    [[ $zsh == *[\',{)]"$opt"[[=}]* ]] || fail "the zsh completion does not offer $context$opt"
  done
}
options_in() { sed -n "/^$1/,/^\$/p" | grep -o -- '--[a-z][a-z-]*' | sort -u; }

overview=$("$tvkit" --help)
commands=$(awk '/^Commands:/ { on = 1; next } on && /^$/ { exit } on && /^  [a-z]/ { print $1 }' <<<"$overview")
[[ $(wc -w <<<"$commands") -ge 10 ]] || fail "no command list in the output of tvkit --help"
check_options "" "$(bash_complete tvkit -)" $(options_in Options: <<<"$overview")
offered=" $(bash_complete tvkit '') "
for cmd in $commands; do
  [[ $man == *"\\fB$cmd\\fR"* ]] || fail "tvkit.1 does not describe $cmd"
  [[ $offered == *" $cmd "* ]] || fail "the bash completion does not offer $cmd"
  [[ $zsh == *"'$cmd:"* ]] || fail "the zsh completion does not offer $cmd"
  [[ $cmd == help ]] && continue
  check_options "$cmd " "$(bash_complete tvkit "$cmd" --)" $("$tvkit" help "$cmd" | options_in usage:)
done

if ((failed)); then
  echo "$failed check(s) failed"
  exit 1
fi
echo "man pages and completions agree with tvkit --help"
