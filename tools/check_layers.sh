#!/usr/bin/env bash
# Fails when a source file includes a header of a higher layer. The folders of
# src/ are layers, bottom to top, in the order of LAYERS; a file may include
# headers of its own folder or of a folder below it. Lines of
# tools/layer_allow.txt ("file -> header  # reason") are exceptions.
set -euo pipefail
cd "$(dirname "$0")/.."
LAYERS=(base parallel numerics system neighbours model operators orbital kpm linear diag run dynamics main)
declare -A rank
for i in "${!LAYERS[@]}"; do rank[${LAYERS[$i]}]=$i; done
allow=tools/layer_allow.txt
bad=0
for f in $(git ls-files 'src/*.hpp' 'src/*.cpp') $(git ls-files --others --exclude-standard 'src/*.hpp' 'src/*.cpp'); do
    [ -f "$f" ] || continue
    layer=$(echo "$f" | cut -d/ -f2)
    if [ -z "${rank[$layer]+x}" ]; then
        echo "check_layers: $f lies in a folder that is not a layer"; bad=1; continue
    fi
    while read -r inc; do
        [ -n "$inc" ] || continue
        to=${inc%%/*}
        if [ -z "${rank[$to]+x}" ]; then
            echo "check_layers: $f includes \"$inc\", not in a layer"; bad=1; continue
        fi
        if [ "${rank[$to]}" -gt "${rank[$layer]}" ]; then
            if [ -f "$allow" ] && grep -qE "^$f -> $inc( |$)" "$allow"; then continue; fi
            echo "check_layers: $f ($layer) includes $inc ($to, a higher layer)"; bad=1
        fi
    done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$f")
done
if [ "$bad" -ne 0 ]; then echo "check_layers: upward includes found"; exit 1; fi
echo "check_layers: every include points to its own or a lower layer"
