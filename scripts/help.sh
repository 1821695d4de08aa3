# Sourced by the other scripts before they do anything: --help prints the comment that a script begins with.
if [[ ${1-} == --help || ${1-} == -h ]]; then
  awk 'NR > 1 { if (!/^#/) exit; sub(/^# ?/, ""); print }' "$0"
  exit 0
fi
