# doc_files DOC HEADING DIRECTORY: writes every code block that follows a
# "<!-- file: NAME -->" line in DOC's section HEADING to DIRECTORY/NAME;
# fails when the section holds none.
doc_files() {
  mkdir -p "$3"
  awk -v heading="$2" -v directory="$3" '
    index($0, heading) == 1 { inside = 1; next }
    inside && /^##/ { exit }
    inside && /^<!-- file: .* -->$/ { file = directory "/" substr($0, 12, length($0) - 15); next }
    file != "" && /^```/ { if (writing) { writing = 0; file = "" } else writing = 1; next }
    writing { print > file }' "$1"
  [ -n "$(ls "$3")" ] || { echo "no file found under \"$2\" in $1" >&2; return 1; }
}
