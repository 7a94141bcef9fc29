#!/bin/sh
# Writes a man page.
#
#   tools/man_page.sh PAGE VERSION SOURCE [PROGRAM]
#
# With a program, from what it prints for --help and --version, and from the sections in SOURCE, with help2man.
# Without one, from SOURCE as a commented file of settings: each "#NAME=example" comes with the comment above it, and the
# comment at its start is the description.
set -eu
export LC_ALL=C.UTF-8

page=$1 version=$2 source=$3 program=${4:-}
file=${page##*/}
section=${file##*.}
name=${file%.*}

if [ -n "$program" ]; then
  folder=$(mktemp -d)
  trap 'rm -rf "$folder"' EXIT
  # help2man knows a synopsis by its place: behind "Usage:", on the same line.
  cat >"$folder/$name" <<END
#!/bin/sh
"$program" "\$@" | sed -e '/^Usage:\$/{N;s/\n */ /}'
END
  chmod +x "$folder/$name"
  help2man --no-info --locale=C.UTF-8 --section="$section" --include="$source" \
    --source="appdatachannel $version" --output="$page" "$folder/$name"
  exit
fi

awk -v title="$name" -v section="$section" -v version="$version" '
  function escape(text) { gsub(/\\/, "\\e", text); gsub(/-/, "\\-", text); sub(/^[.\047]/, "\\\\\\&&", text); return text }
  function describe() {
    if (comment == "") return
    if (!described) {
      printf ".SH NAME\n%s \\- settings of the thing service\n.SH DESCRIPTION\n%s.SH SETTINGS\n", escape(title), comment
      described = 1
    } else if (settings != "") {
      printf "%s%s", settings, comment
    }
    comment = settings = ""
  }
  BEGIN { printf ".TH %s %s \"\" \"appdatachannel %s\"\n", toupper(title), section, version }
  /^$/ { describe() }
  /^# / { comment = comment escape(substr($0, 3)) "\n" }
  /^#[A-Z]/ {
    split($0, parts, "=")
    settings = settings (settings == "" ? ".TP\n" : ".TQ\n") \
      ".BI " escape(substr(parts[1], 2)) "= " escape(substr($0, length(parts[1]) + 2)) "\n"
  }
  END {
    describe()
    printf ".SH SEE ALSO\n.BR qivo\\-thing (8),\n.BR systemd.exec (5)\n"
  }' "$source" >"$page"
