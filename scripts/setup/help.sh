# shellcheck shell=bash
# Sourced by each command. --help as its only argument prints the comment at the command's head.
if [ $# -eq 1 ] && { [ "$1" = --help ] || [ "$1" = -h ]; }; then
  sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
  exit 0
fi

# refuse WORD: ends the command because of an argument that it doesn't know.
refuse() {
  printf "%s: unknown argument '%s': see scripts/%s --help\n" "$(basename "$0" .sh)" "$1" "$(basename "$0")" >&2
  exit 2
}
