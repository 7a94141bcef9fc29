#!/usr/bin/env bash
# Usage: check_includes.sh FOLDER
# In this folder, device-service, a folder includes only from itself and from those that it builds on.
set -euo pipefail
cd "$1"

declare -A builds_on=(
  [api]="health link payload service settings values"
  [health]="payload values"
  [link]="health mqtt payload service settings values"
  [mqtt]="settings values"
  [service]="health payload values"
  [payload]="values"
  [settings]="values"
  [values]=""
)
# Of the service, the link knows the two interfaces only.
wrong=$(grep -rnE '#include "service/' link | grep -vE 'service/(ServiceLink|LinkedService)\.h' || true)$'\n'
for folder in */; do
  folder=${folder%/}
  allowed="$folder ${builds_on[$folder]}"
  wrong+=$(grep -rnE '#include "[a-z]+/' "$folder" | grep -vE "#include \"(${allowed// /|})/" || true)$'\n'
done
if [[ "$wrong" == *[![:space:]]* ]]; then
  echo "includes that go up: $wrong" >&2
  exit 1
fi
