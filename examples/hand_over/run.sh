#!/bin/sh
# Runs both programs side by side: run.sh EXPORTER IMPORTER
set -eu
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
mkfifo "$folder/to_exporter" "$folder/from_exporter"

"$1" "$folder/descriptor" <"$folder/to_exporter" >"$folder/from_exporter" &
exporter=$!
exec 3>"$folder/to_exporter" 4<"$folder/from_exporter"
read -r line <&4
echo "exporter: $line"
"$2" "$folder/descriptor" >"$folder/from_importer"
sed 's/^/importer: /' "$folder/from_importer"
exec 3>&-
read -r line <&4
echo "exporter: $line"
wait "$exporter"
